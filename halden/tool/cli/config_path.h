// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace zr::halden::tool {

/// The configuration file: `given`, unless that is empty, then what HALDEN_CONFIG says, then the host's own. Throws
/// Failure(kWrongUsage) where there is none of these.
std::string ConfigPath(const std::string& given);

}  // namespace zr::halden::tool
