// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <cstddef>

#include "halden/service_watcher.h"
#include "model/connect_string.h"

namespace zr::halden {

bool IsValidServiceName(const zr::String& name) {
  constexpr std::size_t maxBytes = 255;
  if (name.empty() || name.size() > maxBytes || name == "." || name == "..") return false;
  return name.find('/') == zr::String::npos && details::FindBadPathCharacter(name) == std::string_view::npos;
}

}  // namespace zr::halden
