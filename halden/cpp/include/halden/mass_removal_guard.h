// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <optional>

#include "zrstl/export.h"

namespace zr::halden {

/// Guards against the outage that looks like everybody leaving: publishers that lose their sessions together
/// come back together. When more than `share` of a data centre's instances, and at least `least`, disappear
/// within a second, their removals are held: who is back before `gracePeriod` is over is announced as
/// modified, or not at all when its data is the same; the others are removed then. While the connection is
/// down nobody can be seen to come back, so nothing held is removed before the data centre is live again.
///
/// Other removals wait until it is clear that they are no mass: a quarter of a second without another one,
/// one second at the most. Two kinds do not wait: one that no other preceded within a second, where there are
/// ten instances or more, since a tenth can be spared; and all where there are fewer instances than `least`.
struct MassRemovalGuard {
  double share = 0.5;                            ///< at least 0, less than 1
  std::chrono::milliseconds gracePeriod{30000};  ///< more than 0; a century and more is for ever
  /// At least 1. So few, and more than the share, are a mass: two can leave together by chance. 1 also guards
  /// a service of one instance, whose every end is then told that much later.
  std::size_t least = 3;

  bool operator==(const MassRemovalGuard&) const = default;
};

/// Throws std::invalid_argument for values that are out of range.
ZR_EXPORT void Check(const std::optional<MassRemovalGuard>& guard);

}  // namespace zr::halden
