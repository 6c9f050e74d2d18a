// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>
#include <unordered_map>
#include <vector>

#include "base/clock.h"
#include "halden/service_id.h"
#include "halden/service_watcher.h"

namespace zr::halden::details {

/// Decides which removals of one service in one data centre are held. Pure: time is handed in, the instances
/// are elsewhere. Not thread-safe: its owner locks.
///
///   removal --alone in the last second, of ten or more; or no mass can come of it--> not held
///           --else--> undecided --so many within a second that they count as a mass--> held
///                               --quiet again, or a second old, and no mass--> due
///   held    --grace period--> due;     any of them --the instance comes back--> forgotten
class RemovalGuard {
 public:
  using TimePoint = Clock::time_point;

  explicit RemovalGuard(const MassRemovalGuard& options);

  const MassRemovalGuard& Options() const { return m_options; }

  /// One instance has disappeared; `present` were there just before, those held not counted. True: its
  /// removal is to wait until `Due` names it.
  bool Hold(const ServiceId& id, TimePoint now, std::size_t present);
  /// It is back.
  void Forget(const ServiceId& id) { m_since.erase(id); }

  /// Takes those whose removal waits no longer.
  std::vector<ServiceId> Due(TimePoint now);
  /// When to ask next; null while nothing waits.
  std::optional<TimePoint> NextDue() const;

 private:
  struct Waiting {
    ServiceId id;
    TimePoint since;
  };

  void TakeUntil(std::deque<Waiting>& from, TimePoint since, std::vector<ServiceId>& due);

  const MassRemovalGuard m_options;
  const std::chrono::milliseconds m_grace;  // as in the options, but no clock overflows at it
  std::deque<TimePoint> m_recent;           // the removals of the last second
  std::deque<Waiting> m_undecided;          // in order of time, as the next one
  std::deque<Waiting> m_held;               // a mass
  std::unordered_map<ServiceId, TimePoint, ServiceIdHash> m_since;  // an entry above counts if it agrees
};

}  // namespace zr::halden::details
