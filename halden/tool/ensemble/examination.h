// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "ensemble/ensemble_reader.h"
#include "ensemble/facts.h"

namespace zr::halden::tool {

/// What is found in the ensemble with the connect string `ensemble`, which `reader` reads; unless `service` is
/// empty, of that one's nodes too. Waits, up to the reader's limit.
EnsembleFacts Examine(EnsembleReader& reader, const zr::String& ensemble, const std::string& service);

}  // namespace zr::halden::tool
