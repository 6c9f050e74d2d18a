// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "terminal.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "failure.h"
#include "zrstl/utf8.h"

namespace zr::halden::tool {

namespace {

constexpr std::string_view kOwnScreen = "\x1b[?1049h\x1b[?25l\x1b[?7l";  // no cursor, and no wrapped lines
constexpr std::string_view kFormerScreen = "\x1b[?7h\x1b[?25h\x1b[?1049l";
constexpr std::string_view kWipeLine = "\r\x1b[K";

std::string Terminal() {
  const char* const name = std::getenv("TERM");  // NOLINT(concurrency-mt-unsafe): nobody sets it
  return name == nullptr ? std::string() : name;
}

bool CanSteer(int descriptor) {
  return isatty(descriptor) == 1 && !Terminal().empty() && Terminal() != "dumb";
}

/// Some terminals, serial ones for example, do not know their size.
winsize SizeOf(int descriptor) {
  constexpr unsigned short usualRows = 24;
  constexpr unsigned short usualColumns = 80;
  winsize size{};
  if (ioctl(descriptor, TIOCGWINSZ, &size) != 0) size = {};
  if (size.ws_row == 0) size.ws_row = usualRows;
  if (size.ws_col == 0) size.ws_col = usualColumns;
  return size;
}

}  // namespace

Look LookOf(int descriptor) {
  if (isatty(descriptor) != 1) return {};
  const bool refused = std::getenv("NO_COLOR") != nullptr;  // NOLINT(concurrency-mt-unsafe)
  return {!refused && CanSteer(descriptor), SizeOf(descriptor).ws_col};
}

std::string ProgressText(const std::vector<DataCenterStatus>& states) {
  std::string text;
  for (const auto& state : states) {
    text += (text.empty() ? "reading: " : ", ") + EscapeControls(state.name) + ' ';
    if (state.watcher.freshness != Freshness::NeverSynchronized) {
      text += fmt::format("{} done", state.watcher.instances);
    } else if (state.connection.state == ConnectionState::Connected) {
      text += std::to_string(state.watcher.instances);
    } else {
      text += Condition(state);
    }
  }
  return text;
}

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

LiveScreen::LiveScreen(LineWriter& output) : m_output(output), m_signals{SIGWINCH, SIGTSTP, SIGQUIT} {
  if (isatty(output.Descriptor()) != 1) {
    throw Failure(kWrongUsage, "--live needs a terminal, and the output is none");
  }
  if (!CanSteer(output.Descriptor())) {
    throw Failure(kWrongUsage, "--live needs a terminal that can be written over; TERM is '" +
                                   EscapeControls(Terminal()) + "'");
  }
  m_hasKeyboard = isatty(STDIN_FILENO) == 1 && tcgetattr(STDIN_FILENO, &m_before) == 0;
  Enter();
}

LiveScreen::~LiveScreen() {
  Leave();
}

void LiveScreen::Enter() {
  if (m_hasKeyboard) {
    termios silent = m_before;  // what is typed would be written across the screen
    silent.c_lflag &= static_cast<tcflag_t>(~(ECHO | ICANON));
    tcsetattr(STDIN_FILENO, TCSADRAIN, &silent);
  }
  m_output.Write(kOwnScreen);
}

void LiveScreen::Leave() {
  m_output.Write(kFormerScreen);
  if (m_hasKeyboard) tcsetattr(STDIN_FILENO, TCSAFLUSH, &m_before);
}

/// False when one of them is to end the process.
bool LiveScreen::TakeSignals() {
  for (int signal = m_signals.Take(); signal != 0; signal = m_signals.Take()) {
    if (signal == SIGQUIT) return false;
    if (signal == SIGTSTP) {
      Leave();
      static_cast<void>(raise(SIGSTOP));
      Enter();  // goes on here
    }
  }
  return true;
}

void LiveScreen::Run(const std::function<std::string(const Look&, std::size_t)>& text) {
  constexpr std::chrono::milliseconds interval{500};
  do {
    const winsize size = SizeOf(m_output.Descriptor());
    const std::size_t rows = std::max<std::size_t>(size.ws_row, 2);
    Look look = LookOf(m_output.Descriptor());
    look.width =
        std::max<std::size_t>(size.ws_col, 2) - 1;  // a full line's last column would be erased again
    m_output.Write(LiveFrame(text(look, rows), rows));
  } while (!m_output.AwaitEnd(interval, m_signals.Descriptor()) && TakeSignals());
}

std::string LiveFrame(std::string_view text, std::size_t rows) {
  std::string frame = "\x1b[H";
  for (std::size_t row = 0; row < rows && !text.empty(); ++row) {
    const std::size_t end = text.find('\n');
    if (row != 0) frame += '\n';
    frame += text.substr(0, end);
    frame += "\x1b[K";
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
  frame += "\x1b[J";
  return frame;
}

}  // namespace zr::halden::tool
