// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "base/task_thread.h"

#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <exception>
#include <map>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "base/file_descriptor.h"
#include "base/log_sources.h"
#include "zrstl/thread_safety.h"

namespace zr::halden::details {

namespace {

/// Starts a detached thread that takes no signal: they are the application's.
void Launch(TaskThread::Task body) {
  sigset_t all;
  sigset_t previous;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  try {
    std::thread(std::move(body)).detach();
  } catch (...) {
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    throw;
  }
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

FileDescriptor MakeAlarm() {
  FileDescriptor alarm(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!alarm) throw std::system_error(errno, std::generic_category(), "eventfd");
  return alarm;
}

timespec Until(Clock::time_point end) {
  using std::chrono::nanoseconds;
  const nanoseconds left = std::max<nanoseconds>(end - Clock::now(), nanoseconds::zero());
  return {static_cast<time_t>(left / std::chrono::seconds(1)),
          static_cast<long>((left % std::chrono::seconds(1)).count())};
}

}  // namespace

struct TaskThread::State {
  const std::string name;
  const Priority priority;
  FileDescriptor alarm;  // constant once started: readable when a waiting thread is to look at its tasks

  zr::Mutex mtx;
  std::vector<Task> tasks ZR_GUARDED_BY(mtx);  // in order of posting
  std::multimap<Clock::time_point, Task> timers ZR_GUARDED_BY(mtx);
  std::weak_ptr<Sockets> sockets ZR_GUARDED_BY(mtx);
  bool started ZR_GUARDED_BY(mtx) = false;
  bool waiting ZR_GUARDED_BY(mtx) = false;  // nobody has rung the alarm since the thread began to wait
  bool ending ZR_GUARDED_BY(mtx) = false;   // no more tasks are taken

  State(const char* threadName, Priority wanted) : name(threadName), priority(wanted) {}

  /// Takes all that is to run now into `batch`, which must come in empty; false when the thread is to end.
  bool Take(std::vector<Task>& batch) {
    const zr::MutexLock lock(mtx);
    batch.swap(tasks);
    if (ending) return !batch.empty();
    for (const auto now = Clock::now(); !timers.empty() && timers.begin()->first <= now;) {
      batch.push_back(std::move(timers.begin()->second));
      timers.erase(timers.begin());
    }
    return true;
  }

  /// Waits until there is something to run, `end` has come, or something has happened to `polled`, whose
  /// first entry is the alarm's.
  void Wait(std::vector<pollfd>& polled, Clock::time_point end) {
    {
      const zr::MutexLock lock(mtx);
      waiting = tasks.empty() && !ending;
      if (!waiting && polled.size() == 1) return;
      if (!waiting) end = Clock::now();
      if (!timers.empty()) end = std::min(end, timers.begin()->first);
    }
    const bool forEver = end == Clock::time_point::max();
    const timespec left = forEver ? timespec{} : Until(end);
    if (ppoll(polled.data(), polled.size(), forEver ? nullptr : &left, nullptr) <= 0) {
      for (auto& entry : polled) entry.revents = 0;
    }
    const zr::MutexLock lock(mtx);
    waiting = false;
    if (polled.front().revents == 0) return;
    std::uint64_t rung = 0;
    [[maybe_unused]] const auto silenced = read(alarm.Get(), &rung, sizeof rung);
  }

  /// Releases `lock`, which is on mtx, and makes the thread look if it waits.
  void Ring(zr::MutexLock& lock) ZR_RELEASE(mtx) {
    const bool toWake = std::exchange(waiting, false);
    lock.Unlock(mtx);  // else the thread wakes up only to wait for it
    if (!toWake) return;
    const std::uint64_t once = 1;
    [[maybe_unused]] const auto written = write(alarm.Get(), &once, sizeof once);  // there is always room
  }

  std::shared_ptr<Sockets> Served() {
    const zr::MutexLock lock(mtx);
    return sockets.lock();
  }

  void Run();
};

void TaskThread::State::Run() {
  pthread_setname_np(pthread_self(), name.c_str());
  if (priority == Priority::Low) {
    const sched_param none{};
    pthread_setschedparam(pthread_self(), SCHED_BATCH, &none);
  }
  std::vector<Task> batch;
  std::vector<pollfd> polled;
  while (Take(batch)) {
    for (Task& task : batch) {
      RunGuarded(task);
      task = nullptr;  // what it owned goes before the next one runs
    }
    batch.clear();
    polled.assign(1, {alarm.Get(), POLLIN, 0});
    auto end = Clock::time_point::max();
    RunGuarded([&] {
      if (const auto served = Served()) end = served->Await(polled);
    });
    Wait(polled, end);
    for (std::size_t i = 1; i < polled.size(); ++i) {
      if (polled[i].revents == 0) continue;
      RunGuarded([&] {
        if (const auto served = Served()) served->Ready(polled[i]);
      });
    }
  }
}

TaskThread::TaskThread(const char* name, Priority priority)
    : m_state(std::make_shared<State>(name, priority)) {}

TaskThread::~TaskThread() {
  const auto state = m_state;
  zr::MutexLock lock(state->mtx);
  state->ending = true;
  if (state->started) state->Ring(lock);
}

void TaskThread::Post(Task task) {
  PostAfter(Clock::duration::zero(), std::move(task));
}

void TaskThread::PostAfter(Clock::duration delay, Task task) {
  const auto state = m_state;  // this object may go as soon as the lock does: with the task
  zr::MutexLock lock(state->mtx);
  if (!state->started) {
    if (!state->alarm) state->alarm = MakeAlarm();
    Launch([state] { state->Run(); });
    state->started = true;
  }
  if (delay > Clock::duration::zero()) {
    state->timers.emplace(Clock::now() + delay, std::move(task));
  } else {
    state->tasks.push_back(std::move(task));
  }
  state->Ring(lock);
}

void TaskThread::Serve(std::weak_ptr<Sockets> sockets) {
  const zr::MutexLock lock(m_state->mtx);
  m_state->sockets = std::move(sockets);
}

void TaskThread::LogFailure() noexcept {
  try {
    throw;
  } catch (const std::exception& e) {
    ZRLOG(ZRLOG_ERROR, ConnectionLog()) << "task failed, error=" << e.what();
  } catch (...) {
    ZRLOG(ZRLOG_ERROR, ConnectionLog()) << "task failed, error="
                                        << "unknown exception";
  }
}

}  // namespace zr::halden::details
