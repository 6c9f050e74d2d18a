// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "cli/config_path.h"

#include <unistd.h>

#include <cstdlib>

#include "cli/words.h"

namespace zr::halden::tool {

std::string ConfigPath(const std::string& given) {
  std::string ofHost = "/etc/halden/halden.toml";
  if (!given.empty()) return given;
  const char* const set = std::getenv("HALDEN_CONFIG");  // NOLINT(concurrency-mt-unsafe): nobody sets it
  if (set != nullptr && *set != '\0') return set;
  if (access(ofHost.c_str(), F_OK) == 0) return ofHost;
  Refuse("no configuration: name a FILE, set HALDEN_CONFIG, or write " + ofHost +
         " ('halden config example' prints one)");
}

}  // namespace zr::halden::tool
