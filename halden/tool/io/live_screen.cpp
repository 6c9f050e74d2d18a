// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "io/live_screen.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>

#include "io/failure.h"
#include "zrstl/utf8.h"

namespace zr::halden::tool {

namespace {

constexpr std::string_view kOwnScreen = "\x1b[?1049h\x1b[?25l\x1b[?7l";  // no cursor, and no wrapped lines
constexpr std::string_view kFormerScreen = "\x1b[?7h\x1b[?25h\x1b[?1049l";

}  // namespace

LiveScreen::LiveScreen(LineWriter& output) : m_output(output), m_signals{SIGWINCH, SIGTSTP, SIGQUIT} {
  if (isatty(output.Descriptor()) != 1) {
    throw Failure(kWrongUsage, "--live needs a terminal, and the output is none");
  }
  if (!CanSteer(output.Descriptor())) {
    throw Failure(kWrongUsage, "--live needs a terminal that can be written over; TERM is '" +
                                   EscapeControls(TerminalName()) + "'");
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

/// -1 while what is typed is for others: to read it from the background would stop the process.
int LiveScreen::Keyboard() const {
  const bool ours = m_hasKeyboard && !m_keysGone && tcgetpgrp(STDIN_FILENO) == getpgrp();
  return ours ? STDIN_FILENO : -1;
}

/// False when one of them is to end the process.
bool LiveScreen::TakeKeys() {
  pollfd keys{Keyboard(), POLLIN, 0};
  std::array<char, 64> typed{};
  if (keys.fd < 0 || poll(&keys, 1, 0) <= 0) return true;
  const ssize_t count = read(keys.fd, typed.data(), typed.size());
  m_keysGone = count == 0;
  return std::find(typed.begin(), typed.end(), 'q') == typed.end();
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
  } while (!m_output.AwaitEnd(interval, m_signals.Descriptor(), Keyboard()) && TakeSignals() && TakeKeys());
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
