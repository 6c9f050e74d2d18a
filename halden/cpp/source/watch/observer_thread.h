// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <utility>

#include "base/task_thread.h"

namespace zr::halden::details {

/// Calls observers and handlers: one for all watchers of a connection, apart from the session, so that a slow
/// observer holds up neither the session nor another data centre. Any thread may post.
class ObserverThread {
 public:
  void Post(TaskThread::Task task) { m_thread.Post(std::move(task)); }
  void PostAfter(Clock::duration delay, TaskThread::Task task) { m_thread.PostAfter(delay, std::move(task)); }
  /// A little later, in order among themselves: while everything is being read, a thread that is woken for
  /// each instance costs as much as what it then does.
  void PostGathered(TaskThread::Task task) {
    constexpr std::chrono::milliseconds gathering{5};
    m_thread.PostAfter(gathering, std::move(task));
  }

 private:
  TaskThread m_thread{"halden-events"};
};

}  // namespace zr::halden::details
