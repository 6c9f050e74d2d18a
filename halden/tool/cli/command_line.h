// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include "cli/options.h"

namespace zr::halden::tool {

/// Reads the command line and checks all that can be checked without files; the environment plays no part.
/// Throws Failure(kWrongUsage).
Invocation ParseCommandLine(int argc, const char* const* argv);

}  // namespace zr::halden::tool
