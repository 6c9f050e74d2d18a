// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "task_thread.h"

#include <pthread.h>
#include <signal.h>

#include <condition_variable>
#include <exception>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "log_sources.h"

namespace zr::halden::details {

struct TaskThread::State {
  const std::string name;
  std::mutex mtx;                // guards all below
  std::condition_variable wake;  // tasks, timers or ending changed
  std::vector<Task> tasks;       // in order of posting
  std::multimap<Clock::time_point, Task> timers;
  bool started = false;
  bool ending = false;  // no more tasks are taken

  explicit State(const char* threadName) : name(threadName) {}

  /// Waits for work and takes all of it; empty when the thread is to end. `batch` must come in empty.
  void Take(std::vector<Task>& batch) {
    std::unique_lock lock(mtx);
    while (tasks.empty() && !ending) {
      if (timers.empty()) {
        wake.wait(lock);
      } else if (const auto due = timers.begin()->first; due > Clock::now()) {
        wake.wait_until(lock, due);
      } else {
        break;
      }
    }
    batch.swap(tasks);
    if (ending) return;
    for (const auto now = Clock::now(); !timers.empty() && timers.begin()->first <= now;) {
      batch.push_back(std::move(timers.begin()->second));
      timers.erase(timers.begin());
    }
  }
};

namespace {

void RunGuarded(const TaskThread::Task& task) {
  try {
    task();
  } catch (const std::exception& e) {
    ZRLOG(ZRLOG_ERROR, ConnectionLog()) << "task failed, error=" << e.what();
  } catch (...) {
    ZRLOG(ZRLOG_ERROR, ConnectionLog()) << "task failed, error="
                                        << "unknown exception";
  }
}

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

}  // namespace

TaskThread::TaskThread(const char* name) : m_state(std::make_shared<State>(name)) {}

TaskThread::~TaskThread() {
  const std::lock_guard lock(m_state->mtx);
  m_state->ending = true;
  m_state->wake.notify_one();
}

void TaskThread::Post(Task task) {
  PostAfter(Clock::duration::zero(), std::move(task));
}

void TaskThread::PostAfter(Clock::duration delay, Task task) {
  const auto posted = m_state;  // this object may go as soon as the lock does: with the task
  std::unique_lock lock(posted->mtx);
  if (!posted->started) {
    Launch([state = posted] {
      pthread_setname_np(pthread_self(), state->name.c_str());
      std::vector<Task> batch;
      for (state->Take(batch); !batch.empty(); state->Take(batch)) {
        for (Task& next : batch) {
          RunGuarded(next);
          next = nullptr;  // what it owned goes before the next one runs
        }
        batch.clear();
      }
    });
    posted->started = true;
  }
  const bool idle = posted->tasks.empty();
  if (delay > Clock::duration::zero()) {
    posted->timers.emplace(Clock::now() + delay, std::move(task));
  } else {
    posted->tasks.push_back(std::move(task));
    if (!idle) return;  // the thread has been woken for the earlier ones
  }
  lock.unlock();  // else the thread wakes up only to wait for it
  posted->wake.notify_one();
}

}  // namespace zr::halden::details
