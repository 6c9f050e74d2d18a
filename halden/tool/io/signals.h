// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <initializer_list>

namespace zr::halden::tool {

/// Signals that arrive as something to read instead of as an interruption: they are blocked, for good, and
/// wait in a descriptor. Make it before the process has threads: they inherit what is blocked.
class SignalSet {
 public:
  /// Throws std::system_error.
  SignalSet(std::initializer_list<int> signals);
  ~SignalSet();

  SignalSet(const SignalSet&) = delete;
  SignalSet& operator=(const SignalSet&) = delete;

  /// Readable while a signal waits; owned by this object.
  int Descriptor() const { return m_descriptor; }

  /// Takes one signal that waits; 0 when none does.
  int Take() const;

 private:
  int m_descriptor;
};

/// Makes a write to a pipe that nobody reads an error instead of the end of the process.
void IgnoreBrokenPipes();

}  // namespace zr::halden::tool
