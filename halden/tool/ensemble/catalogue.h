// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "ensemble/ensemble_reader.h"
#include "render/records.h"

namespace zr::halden::tool {

/// What is published in a data centre.
struct Catalogue {
  std::vector<ServiceCount> services;
  std::string trouble;  // why it is not complete
};

/// Waits, up to the reader's limit; `patience`: how long that was when it began.
Catalogue ReadCatalogue(EnsembleReader& reader, std::chrono::milliseconds patience);

}  // namespace zr::halden::tool
