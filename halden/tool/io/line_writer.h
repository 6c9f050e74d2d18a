// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <string_view>

namespace zr::halden::tool {

/// Writes whole lines to a descriptor, at once and unmixed, and knows when there is no more reason to.
///
/// Threads: `Write` may be called from any thread. It waits for a slow reader, but no longer than until a
/// stop is asked for: a reader that has ceased to read must not keep the process from ending. Ownership:
/// neither descriptor is owned; both must outlive it.
class LineWriter {
 public:
  /// `stop` becomes readable when the process is to end, and stays so.
  LineWriter(int output, int stop) : m_output(output), m_stop(stop) {}

  /// Once the writer has ended, text is dropped.
  void Write(std::string_view text);

  /// Waits until there is a reason to end: a stop, a reader that has gone away, a write that failed. True
  /// then; false at the limit, or when `other` or `another` (-1: none) becomes readable.
  bool AwaitEnd(std::chrono::milliseconds limit, int other = -1, int another = -1);

  int Descriptor() const { return m_output; }

  /// Throws Failure when a write failed for another reason than that the reader has gone.
  void ThrowIfFailed() const;

 private:
  bool AwaitWritable();

  const int m_output;
  const int m_stop;
  std::mutex m_mtx;  // held for one text's writing
  std::atomic<bool> m_ended{false};
  std::atomic<int> m_error{0};  // errno of the write that failed; 0 for none
};

}  // namespace zr::halden::tool
