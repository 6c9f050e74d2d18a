// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <poll.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "base/clock.h"

namespace zr::halden::details {

/// Runs tasks one after another, in the order they were posted, on a thread of its own with all signals
/// blocked; between them it waits for sockets, if it is given some.
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

  /// What the thread does for sockets, which belong to layers above. Called on the thread, between tasks.
  class Sockets {
   public:
    virtual ~Sockets() = default;
    /// Before each wait: appends what to wait for. The wait ends at the time returned, if nothing ends it
    /// earlier.
    virtual Clock::time_point Await(std::vector<pollfd>& sockets) = 0;
    /// After it: something has happened to one of them.
    virtual void Ready(const pollfd& socket) = 0;
  };

  /// Low: for what nobody waits for. It gets its share of the processors all the same, since it may hold a lock that
  /// others need, but never takes one from whom is running.
  enum class Priority : std::uint8_t { Usual, Low };

  /// `name` is what debuggers show, at most 15 characters.
  explicit TaskThread(const char* name, Priority priority = Priority::Usual);
  ~TaskThread();

  TaskThread(const TaskThread&) = delete;
  TaskThread& operator=(const TaskThread&) = delete;

  void Post(Task task);
  void PostAfter(Clock::duration delay, Task task);
  /// From its next turn on. Instead of what it served before.
  void Serve(std::weak_ptr<Sockets> sockets);

  /// Runs `function`; what it throws is logged.
  template <typename Function>
  static void RunGuarded(const Function& function) noexcept {
    try {
      function();
    } catch (...) {
      LogFailure();
    }
  }

 private:
  struct State;

  /// Of the exception being handled.
  static void LogFailure() noexcept;

  const std::shared_ptr<State> m_state;  // shared with the thread, which may outlive this object
};

/// Runs a task on some thread after a delay, as long as that makes sense.
using PostFunction = std::function<void(Clock::duration, TaskThread::Task)>;

}  // namespace zr::halden::details
