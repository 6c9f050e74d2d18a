// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "ensemble/ensemble_reader.h"
#include "halden/service_id.h"

namespace zr::halden::tool {

struct FoundIds {
  std::vector<ServiceId> ids;
  int code = 0;  ///< of the first read that failed; that there is no such service is none
};

/// The instances of a service whose ids begin so; of a whole id that very one, without a look whether it is there.
FoundIds FindIds(EnsembleReader& reader, const std::string& service, const std::string& prefix);

}  // namespace zr::halden::tool
