// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "halden/utils.h"

namespace zr::halden::tool {

/// The ensembles of the configuration file, of these data centres only unless none is named. Throws Failure for a
/// file with faults: to act on the rest of it would look as if a data centre had no instances. Warnings go to
/// stderr, unless `quiet`; so do credentials that cannot be read, in any case.
DataCenterEnsembleMapT LoadEnsembles(const std::string& path, bool quiet,
                                     const std::vector<std::string>& dataCenters);

/// Leaves out all but the named ones, unless none is named. Throws Failure(kWrongUsage) for one that is not there.
void KeepOnly(DataCenterEnsembleMapT& ensembles, const std::vector<std::string>& dataCenters,
              const std::string& path);

}  // namespace zr::halden::tool
