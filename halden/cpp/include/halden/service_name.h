// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include "zrstl/export.h"
#include "zrstl/string.h"

namespace zr::halden {

/// A service name is 1 to 255 bytes of valid UTF-8 without "/" and control characters, not "." or "..", and
/// without the code points that ZooKeeper refuses in paths (U+D800 to U+F8FF, U+FFF0 and above).
ZR_EXPORT bool IsValidServiceName(const zr::String& name);

}  // namespace zr::halden
