// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace zr::halden::details {

/// Runs tasks one after another, in the order they were posted, on a thread of its own with all signals
/// blocked.
///
/// Threads: any thread may post, the thread's own tasks included. The thread starts with the first task.
/// Ownership: the destructor never joins, so it may run on the thread itself: tasks posted before it still
/// run, timed ones that are not due are dropped, then the thread ends by itself. A task must therefore own,
/// or hold weakly, all that it touches.
/// Errors: posting throws std::system_error when the thread cannot be started. An exception out of a task is
/// logged and ends that task only.
class TaskThread {
 public:
  using Task = std::function<void()>;
  using Clock = std::chrono::steady_clock;

  /// `name` is what debuggers show, at most 15 characters.
  explicit TaskThread(const char* name);
  ~TaskThread();

  TaskThread(const TaskThread&) = delete;
  TaskThread& operator=(const TaskThread&) = delete;

  void Post(Task task);
  void PostAfter(Clock::duration delay, Task task);

 private:
  struct State;

  const std::shared_ptr<State> m_state;  // shared with the thread, which may outlive this object
};

}  // namespace zr::halden::details
