// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string_view>

#include "zrstl/export.h"

namespace zr::halden {

/// What happened to an instance.
enum class InstanceChange : std::uint8_t { Added, Modified, Removed };

/// "added", "modified", "removed"
ZR_EXPORT std::string_view ToString(InstanceChange change);
ZR_EXPORT std::ostream& operator<<(std::ostream& out, InstanceChange change);

}  // namespace zr::halden
