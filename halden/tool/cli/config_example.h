// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace zr::halden::tool {

/// A configuration file to start from, in order as it is.
std::string ConfigExample();

}  // namespace zr::halden::tool
