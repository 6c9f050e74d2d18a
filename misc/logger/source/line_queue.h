// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>

#include "logger/logger.h"
#include "zrstl/thread_safety.h"

namespace zr::logging::details {

/// Lines on their way to a handler with a thread of its own.
///
/// Threads: any. The queue's thread blocks all signals and is never joined, since a handler may remove
/// itself: it shares the queue, and ends once that is closed and empty.
class LineQueue {
 public:
  /// Must not throw. `depth` is what was given to `Push`.
  using Deliver = std::function<void(const LogRecord& record, int depth)>;

  explicit LineQueue(std::size_t capacity) : m_capacity(capacity) {}

  /// Throws std::system_error. The thread owns `deliver`, which may therefore own the queue.
  static std::shared_ptr<LineQueue> Start(std::size_t capacity, Deliver deliver);

  /// Copies the record. False: full or closed.
  bool Push(const LogRecord& record, int depth);

  /// False: not all that was pushed before is delivered at `deadline`.
  bool AwaitDelivered(std::chrono::steady_clock::time_point deadline);

  void Close();

 private:
  struct Line {
    LogLevel level;
    unsigned int id;
    DecodeType decodeType;
    ConstSourcePtr source;
    std::string file;
    int line;
    IPString msg;
    timespec logTime;
    std::size_t threadId;
    int depth;
  };

  void Run(const Deliver& deliver);

  const std::size_t m_capacity;
  zr::Mutex m_mtx;  // nothing is called with it held
  zr::ConditionVariable m_changed;
  zr::ConditionVariable m_progress;
  std::deque<Line> m_lines ZR_GUARDED_BY(m_mtx);
  std::uint64_t m_pushed ZR_GUARDED_BY(m_mtx) = 0;
  std::uint64_t m_delivered ZR_GUARDED_BY(m_mtx) = 0;
  bool m_closed ZR_GUARDED_BY(m_mtx) = false;
};

}  // namespace zr::logging::details
