// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "line_queue.h"

#include <pthread.h>

#include <csignal>
#include <thread>
#include <utility>

namespace zr::logging::details {

namespace {

/// A thread begins with the signal mask of the one that makes it.
class AllSignalsBlocked {
 public:
  AllSignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &m_previous);
  }
  ~AllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_previous, nullptr); }
  AllSignalsBlocked(const AllSignalsBlocked&) = delete;
  AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;

 private:
  sigset_t m_previous{};
};

}  // namespace

std::shared_ptr<LineQueue> LineQueue::Start(std::size_t capacity, Deliver deliver) {
  auto queue = std::make_shared<LineQueue>(capacity);
  const AllSignalsBlocked blocked;
  std::thread([queue, deliver = std::move(deliver)] {
    pthread_setname_np(pthread_self(), "halden-log");
    queue->Run(deliver);
  }).detach();
  return queue;
}

bool LineQueue::Push(const LogRecord& record, int depth) {
  Line line{record.level, record.id,  record.decodeType, record.source,   record.file,
            record.line,  record.msg, record.logTime,    record.threadId, depth};
  const zr::MutexLock lock(m_mtx);
  if (m_closed || m_lines.size() >= m_capacity) return false;
  m_lines.push_back(std::move(line));
  ++m_pushed;
  m_changed.NotifyOne();
  return true;
}

bool LineQueue::AwaitDelivered(std::chrono::steady_clock::time_point deadline) {
  const zr::MutexLock lock(m_mtx);
  return m_progress.WaitUntil(m_mtx, deadline,
                              [this, goal = m_pushed]() ZR_REQUIRES(m_mtx) { return m_delivered >= goal; });
}

void LineQueue::Close() {
  const zr::MutexLock lock(m_mtx);
  m_closed = true;
  m_changed.NotifyOne();
}

void LineQueue::Run(const Deliver& deliver) {
  zr::MutexLock lock(m_mtx);
  while (true) {
    m_changed.Wait(m_mtx, [this]() ZR_REQUIRES(m_mtx) { return m_closed || !m_lines.empty(); });
    if (m_lines.empty()) return;
    {
      const Line line = std::move(m_lines.front());
      m_lines.pop_front();
      lock.Unlock(m_mtx);
      deliver(LogRecord{line.level,
                        line.id,
                        line.decodeType,
                        line.source,
                        line.file.c_str(),
                        line.line,
                        line.msg,
                        line.logTime,
                        line.threadId,
                        {}},
              line.depth);
    }
    lock.Lock(m_mtx);
    ++m_delivered;
    m_progress.NotifyAll();
  }
}

}  // namespace zr::logging::details
