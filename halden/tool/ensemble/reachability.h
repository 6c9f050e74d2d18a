// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include "zrstl/string.h"

namespace zr::halden::tool {

/// Why none of "address:port,address:port..." (numeric, IPv6 without brackets) takes a TCP connection; empty
/// when one does. Waits two seconds for each at the most. Any thread.
zr::String WhyUnreachable(const zr::String& addresses);

}  // namespace zr::halden::tool
