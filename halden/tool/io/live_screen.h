// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <termios.h>

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

#include "io/line_writer.h"
#include "io/signals.h"
#include "io/terminal.h"

namespace zr::halden::tool {

/// The whole terminal for a text that changes in place, and back to what it showed before at the end, also
/// when that comes by a signal, and while the process is suspended.
///
/// Threads: one. Make it before the process has other threads: they inherit the signals it blocks.
class LiveScreen {
 public:
  /// Throws Failure when the output is not a terminal that can do it.
  explicit LiveScreen(LineWriter& output);
  ~LiveScreen();

  LiveScreen(const LiveScreen&) = delete;
  LiveScreen& operator=(const LiveScreen&) = delete;

  /// Shows what `text` makes for the terminal's width and number of lines, again and again, until there is a
  /// reason to end, or somebody presses q.
  void Run(const std::function<std::string(const Look&, std::size_t)>& text);

 private:
  void Enter();
  void Leave();
  bool TakeSignals();
  int Keyboard() const;
  bool TakeKeys();

  LineWriter& m_output;
  const SignalSet m_signals;
  termios m_before{};
  bool m_hasKeyboard = false;  // m_before is what to restore
  bool m_keysGone = false;     // nothing more will be typed
};

/// What replaces one frame by the next without a moment of emptiness between: every line is written over, and
/// only what is left of the old one erased. At most `rows` lines.
std::string LiveFrame(std::string_view text, std::size_t rows);

}  // namespace zr::halden::tool
