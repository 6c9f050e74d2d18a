// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "commands/progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>

#include "io/terminal.h"
#include "render/state_text.h"
#include "render/text.h"

namespace zr::halden::tool {

namespace {

constexpr std::string_view kWipeLine = "\r\x1b[K";

}  // namespace

Progress::Progress(bool quiet) : m_wanted(!quiet && CanSteer(STDERR_FILENO)) {}

void Progress::Show(const std::vector<DataCenterStatus>& states) {
  constexpr std::chrono::milliseconds shortWhile{400};  // nobody wants a line that is gone before it is read
  if (!m_wanted || std::chrono::steady_clock::now() - m_begin < shortWhile) return;
  const std::size_t width = SizeOf(STDERR_FILENO).ws_col;
  const std::string line =
      std::string(kWipeLine) + Cut(ProgressText(states), std::max<std::size_t>(width, 2) - 1);
  std::fputs(line.c_str(), stderr);
  m_shown = true;
}

void Progress::Wipe() {
  if (!m_shown) return;
  std::fputs(std::string(kWipeLine).c_str(), stderr);
  m_shown = false;
}

}  // namespace zr::halden::tool
