// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "io/failure.h"

#include <cstdio>
#include <sstream>

#include "zrstl/utf8.h"

namespace zr::halden::tool {

void Complain(const std::string& lines) noexcept try {
  std::istringstream stream(lines);
  std::string text;
  for (std::string line; std::getline(stream, line);) text += "halden: " + EscapeControls(line) + '\n';
  std::fputs(text.c_str(), stderr);
} catch (...) {
  std::fputs("halden: out of memory\n", stderr);
}

}  // namespace zr::halden::tool
