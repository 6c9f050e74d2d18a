// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <stdexcept>
#include <string>

namespace zr::halden::tool {

/// What the process returns. Ending because of a signal, or because nobody reads any more, is a success.
enum ExitCode : int { kSuccess = 0, kFailed = 1, kWrongUsage = 2 };

/// Ends a command: `what`, one line for each thing that is wrong, is told on stderr.
class Failure : public std::runtime_error {
 public:
  Failure(ExitCode exitCode, const std::string& lines) : std::runtime_error(lines), m_exitCode(exitCode) {}

  ExitCode Code() const { return m_exitCode; }

 private:
  ExitCode m_exitCode;
};

/// Writes each line of `lines` to stderr, after the program's name and safe for a terminal. Never fails.
void Complain(const std::string& lines) noexcept;

}  // namespace zr::halden::tool
