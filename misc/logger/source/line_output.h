// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "logger/sink.h"

/// Where formatted lines go. Not spdlog's sinks: of what those write to a console they do not see the
/// failures, and a file they empty when it cannot be renamed.
///
/// Threads: one at a time. Errors: `Write` throws std::system_error for a line that is not written, or only
/// in part; the next one then begins on a line of its own. The signals of a failed write never reach the
/// process.
namespace zr::logging::details {

/// A descriptor that belongs to others.
class DescriptorOutput {
 public:
  explicit DescriptorOutput(int descriptor) : m_descriptor(descriptor) {}

  void Write(std::string_view line);

 private:
  int m_descriptor;
  bool m_torn = false;  // what stands there last has no end
};

/// A file that is appended to, rotated by size, and opened anew after `ReopenAll`.
class FileOutput {
 public:
  explicit FileOutput(const FileOptions& options);
  ~FileOutput() { Close(); }
  FileOutput(const FileOutput&) = delete;
  FileOutput& operator=(const FileOutput&) = delete;

  void Write(std::string_view line);

  /// Only remembers it, so that a signal handler may call it.
  static void ReopenAll() noexcept;

 private:
  void Open();
  void Close();
  bool MoveAway();
  std::string OldPath(unsigned number) const { return m_options.path + '.' + std::to_string(number); }

  const FileOptions m_options;
  int m_descriptor = -1;
  bool m_isRegular = false;
  bool m_torn = false;
  std::uint64_t m_bytes = 0;     // in the file, or since a rotation failed
  unsigned m_openedForCall = 0;  // the calls of ReopenAll that the open file is for
};

}  // namespace zr::logging::details
