// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "zrstl/export.h"

// What a declaration says of locks, for clang's -Wthread-safety; other compilers see nothing of it.
#if defined(__clang__)
#define ZR_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define ZR_THREAD_ANNOTATION(x)
#endif

/// A field that is read and written only with the mutex held.
#define ZR_GUARDED_BY(mutex) ZR_THREAD_ANNOTATION(guarded_by(mutex))
/// A function, or a lambda, that is called with the mutex held: it stays so, or is released, or is taken.
#define ZR_REQUIRES(mutex) ZR_THREAD_ANNOTATION(requires_capability(mutex))
#define ZR_RELEASE(...) ZR_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define ZR_ACQUIRE(...) ZR_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))

namespace zr {

/// std::mutex, as one that the annotations may name: the standard library's says nothing of itself.
class ZR_EXPORT ZR_THREAD_ANNOTATION(capability("mutex")) Mutex {
 public:
  void Lock() ZR_ACQUIRE() { m_mutex.lock(); }
  void Unlock() ZR_RELEASE() { m_mutex.unlock(); }

 private:
  friend class ConditionVariable;

  std::mutex m_mutex;
};

/// Holds a mutex from its construction to the end of its scope, but for what lies between `Unlock` and `Lock`. These
/// name the mutex, so that a function which was handed the lock can say and prove what it does.
class ZR_EXPORT ZR_THREAD_ANNOTATION(scoped_lockable) MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ZR_ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.Lock(); }
  ~MutexLock() ZR_RELEASE() {
    if (m_held) m_mutex.Unlock();
  }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  void Lock(Mutex& mutex) ZR_ACQUIRE(mutex) {
    mutex.Lock();
    m_held = true;
  }
  void Unlock(Mutex& mutex) ZR_RELEASE(mutex) {
    m_held = false;
    mutex.Unlock();
  }

 private:
  Mutex& m_mutex;
  bool m_held = true;
};

/// std::condition_variable for Mutex. A wait begins and ends with the mutex held, and the predicate is called with it,
/// which says so itself: `[this]() ZR_REQUIRES(m_mtx) { return m_closed; }`.
class ZR_EXPORT ConditionVariable {
 public:
  void NotifyOne() noexcept { m_changed.notify_one(); }
  void NotifyAll() noexcept { m_changed.notify_all(); }

  template <typename Predicate>
  void Wait(Mutex& mutex, Predicate predicate) ZR_REQUIRES(mutex) {
    Lent lent(mutex);
    m_changed.wait(lent.lock, predicate);
  }
  /// False: not so at `deadline`.
  template <typename Predicate>
  bool WaitUntil(Mutex& mutex, std::chrono::steady_clock::time_point deadline, Predicate predicate)
      ZR_REQUIRES(mutex) {
    Lent lent(mutex);
    return m_changed.wait_until(lent.lock, deadline, predicate);
  }
  template <typename Predicate>
  bool WaitFor(Mutex& mutex, std::chrono::milliseconds limit, Predicate predicate) ZR_REQUIRES(mutex) {
    return WaitUntil(mutex, std::chrono::steady_clock::now() + limit, predicate);
  }

 private:
  /// As std::condition_variable wants it. The mutex stays its holder's.
  struct Lent {
    explicit Lent(Mutex& mutex) : lock(mutex.m_mutex, std::adopt_lock) {}
    ~Lent() { lock.release(); }
    std::unique_lock<std::mutex> lock;
  };

  std::condition_variable m_changed;
};

}  // namespace zr
