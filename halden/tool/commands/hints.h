// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "cli/options.h"
#include "render/text.h"

namespace zr::halden::tool {

/// What finds out more about data centres that failed; `service` may be empty.
inline std::string DoctorHint(const CommonOptions& options, const std::string& service) {
  return "try: halden doctor" + (service.empty() ? "" : ' ' + Word(service)) + " --config " +
         Word(options.configPath);
}

}  // namespace zr::halden::tool
