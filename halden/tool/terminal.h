// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <termios.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "line_writer.h"
#include "output.h"
#include "signals.h"

namespace zr::halden::tool {

/// How output to the descriptor may look. Colours and a limit are for terminals; no colours where NO_COLOR is
/// set, or TERM says that there are none.
Look LookOf(int descriptor);

/// Says on a line of stderr what has been read so far, while that takes long: where stderr is a terminal.
/// Threads: one.
class Progress {
 public:
  explicit Progress(bool quiet);
  ~Progress() { Wipe(); }

  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void Show(const std::vector<DataCenterStatus>& states);
  void Wipe();

 private:
  const bool m_wanted;
  const std::chrono::steady_clock::time_point m_begin = std::chrono::steady_clock::now();
  bool m_shown = false;
};

/// "reading: ap-south connecting, eu-west 1200, us-east 3 done"
std::string ProgressText(const std::vector<DataCenterStatus>& states);

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
  /// reason to end.
  void Run(const std::function<std::string(const Look&, std::size_t)>& text);

 private:
  void Enter();
  void Leave();
  bool TakeSignals();

  LineWriter& m_output;
  const SignalSet m_signals;
  termios m_before{};
  bool m_hasKeyboard = false;  // m_before is what to restore
};

/// What replaces one frame by the next without a moment of emptiness between: every line is written over, and
/// only what is left of the old one erased. At most `rows` lines.
std::string LiveFrame(std::string_view text, std::size_t rows);

}  // namespace zr::halden::tool
