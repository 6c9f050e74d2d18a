// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "halden/utils.h"
#include "io/line_writer.h"

namespace zr::halden::tool {

/// Of all data centres, as they come. Asks the ensembles, for two seconds at the most; what cannot be read is left out.
std::vector<std::string> ReadServiceNames(const DataCenterEnsembleMapT& ensembles, LineWriter& output);

/// What there is to say of a service that has no instance in any of these data centres, and which others have names
/// like it: "nobody publishes 'ordrs', did you mean orders?" Asks as above.
std::string NobodyPublishes(const DataCenterEnsembleMapT& ensembles, const std::string& service,
                            LineWriter& output);

}  // namespace zr::halden::tool
