// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "io/terminal.h"

#include <unistd.h>

#include <cstdlib>

namespace zr::halden::tool {

std::string TerminalName() {
  const char* const name = std::getenv("TERM");  // NOLINT(concurrency-mt-unsafe): nobody sets it
  return name == nullptr ? std::string() : name;
}

bool CanSteer(int descriptor) {
  return isatty(descriptor) == 1 && !TerminalName().empty() && TerminalName() != "dumb";
}

winsize SizeOf(int descriptor) {
  constexpr unsigned short usualRows = 24;
  constexpr unsigned short usualColumns = 80;
  winsize size{};
  if (ioctl(descriptor, TIOCGWINSZ, &size) != 0) size = {};
  if (size.ws_row == 0) size.ws_row = usualRows;
  if (size.ws_col == 0) size.ws_col = usualColumns;
  return size;
}

Look LookOf(int descriptor) {
  if (isatty(descriptor) != 1) return {};
  const bool refused = std::getenv("NO_COLOR") != nullptr;  // NOLINT(concurrency-mt-unsafe)
  return {!refused && CanSteer(descriptor), SizeOf(descriptor).ws_col};
}

}  // namespace zr::halden::tool
