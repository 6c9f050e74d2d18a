// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "halden/utils.h"

namespace zr::halden::tool {

/// The ensembles of the configuration file. Throws Failure for a file with faults: to act on the rest of it
/// would look as if a data centre had no instances. Warnings go to stderr, unless `quiet`; so do credentials
/// that cannot be read, in any case.
DataCenterEnsembleMapT LoadEnsembles(const std::string& path, bool quiet);

}  // namespace zr::halden::tool
