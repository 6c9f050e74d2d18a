// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "logger/logger.h"
#include "zrstl/export.h"
#include "zrstl/observable.h"

namespace zr {

/// Yields between two reports of an unregistration that still waits.
inline constexpr std::uint64_t kStallReportInterval = 100000000;

/// A list of observers, owning and non-owning in one, for a class that publishes events to derive from.
///
/// Threads: any thread may register, unregister and notify. Observers run on the notifying thread, in the
/// order of registration, on a snapshot and with no lock held: a callback may register, unregister (itself
/// included) and call back into the publisher; such changes count from the next notification on.
/// Ownership: a notification keeps every observer of its snapshot alive until it has ended. A weak
/// registration whose observer is gone is skipped and never removed. An unregistration can be what runs an
/// observer's destructor, with the list's mutex held: it must not call back into the same list.
/// Waiting: an unregistration returns only once it has seen no notification running on another thread. There
/// is one record for all threads: with several that notify at once, the last one to start and the first one
/// to finish decide, so it may return while an earlier one still runs, or, inside a callback, wait for a
/// later one. With one notifying thread it is exact, and inside a callback it returns at once. There is no
/// time limit; a long wait is reported in the log, at level info. Do not unregister while holding a lock that
/// a callback may want.
/// Errors: an exception out of an observer leaves the notification; the observers after it are not called.
/// Registering the same observer twice notifies it twice; each unregistration removes one registration.
template <typename Observer, std::uint64_t StallReportInterval = kStallReportInterval>
class ZR_EXPORT ObservableImpl : public virtual Observable<Observer> {
 public:
  ~ObservableImpl() override = default;

  void RegisterShared(std::shared_ptr<Observer> observer) override {
    if (!observer) return;
    const std::lock_guard<std::mutex> lock(m_mtx);
    m_weakObservers.push_back(std::weak_ptr<Observer>(observer));
    m_strongObservers.push_back(std::move(observer));
  }

  void RegisterWeak(std::weak_ptr<Observer> observer) override {
    const std::shared_ptr<Observer> alive = observer.lock();
    if (!alive) return;
    const std::lock_guard<std::mutex> lock(m_mtx);
    m_weakObservers.push_back(std::move(observer));
    m_strongObservers.push_back(nullptr);
  }

  void UnregisterShared(const std::shared_ptr<Observer>& observer) override {
    this->UnregisterRaw(observer.get());
  }

  void UnregisterWeak(const std::weak_ptr<Observer>& observer) override {
    const std::shared_ptr<Observer> alive = observer.lock();
    this->UnregisterRaw(alive.get());
  }

  void UnregisterRaw(const Observer* observer) override {
    if (observer == nullptr) return;
    std::unique_lock<std::mutex> lock(m_mtx);
    for (std::size_t i = 0; i < m_weakObservers.size(); ++i) {
      if (GetObserver(lock, i).get() == observer) {
        m_weakObservers.erase(m_weakObservers.begin() + static_cast<std::ptrdiff_t>(i));
        m_strongObservers.erase(m_strongObservers.begin() + static_cast<std::ptrdiff_t>(i));
        break;
      }
    }
    lock.unlock();
    ZRLOG(ZRLOG_DEBUG, nullptr) << "UnregisterRaw m_inCallbackThreadId=" << m_inCallbackThreadId.load()
                                << ", current thread id=" << std::this_thread::get_id();
    WaitForOtherThreadsCallbacks();
  }

 protected:
  ObservableImpl() = default;

  template <typename MemFunc, typename... Args>
  void NotifyObservers(MemFunc&& func, Args&&... args) const {
    SetAndValidateThreading();
    const AutoThreadResetter autoReset(m_inCallbackThreadId);
    const std::vector<std::shared_ptr<Observer>> observers = GetObserversStrong();
    for (const auto& observer : observers) {
      // The arguments are not forwarded: every observer gets the same ones, none may be moved from.
      if (observer) std::invoke(func, *observer, args...);
    }
  }

  std::vector<std::shared_ptr<Observer>> GetObserversStrong() const {
    const std::unique_lock<std::mutex> lock(m_mtx);
    return GetObserversStrong(lock);
  }

  std::vector<std::weak_ptr<Observer>> GetObservers() const {
    const std::lock_guard<std::mutex> lock(m_mtx);
    return m_weakObservers;
  }

  void ClearObservers() {
    const std::lock_guard<std::mutex> lock(m_mtx);
    m_weakObservers.clear();
    m_strongObservers.clear();
  }

 private:
  /// Blanks the record of the notifying thread at the end of a notification, however it ends.
  class AutoThreadResetter {
   public:
    explicit AutoThreadResetter(std::atomic<std::thread::id>& value) : m_value(value) {}
    AutoThreadResetter(const AutoThreadResetter& other) : m_value(other.m_value) {}
    AutoThreadResetter(AutoThreadResetter&& other) noexcept : m_value(other.m_value) {}
    AutoThreadResetter& operator=(const AutoThreadResetter& /*other*/) { return *this; }
    AutoThreadResetter& operator=(AutoThreadResetter&& /*other*/) noexcept { return *this; }
    ~AutoThreadResetter() { m_value.store(GetBlankThreadId()); }

    /// The id of no thread.
    static const std::thread::id& GetBlankThreadId() {
      static const std::thread::id not_used;
      return not_used;
    }

   private:
    std::atomic<std::thread::id>& m_value;
  };

  void SetAndValidateThreading() const { m_inCallbackThreadId.store(std::this_thread::get_id()); }

  std::vector<std::shared_ptr<Observer>> GetObserversStrong(const std::unique_lock<std::mutex>& lock) const {
    std::vector<std::shared_ptr<Observer>> retVal;
    retVal.reserve(m_weakObservers.size());
    for (std::size_t i = 0; i < m_weakObservers.size(); ++i) retVal.push_back(GetObserver(lock, i));
    return retVal;
  }

  /// `lock` proves that the caller holds m_mtx.
  std::shared_ptr<Observer> GetObserver(const std::unique_lock<std::mutex>& /*lock*/, std::size_t i) const {
    return m_strongObservers[i] ? m_strongObservers[i] : m_weakObservers[i].lock();
  }

  void WaitForOtherThreadsCallbacks() const {
    std::uint64_t counter = 0;
    while (m_inCallbackThreadId.load() != AutoThreadResetter::GetBlankThreadId() &&
           m_inCallbackThreadId.load() != std::this_thread::get_id()) {
      std::this_thread::yield();
      ++counter;
      if (counter % StallReportInterval == 0) {
        ZRLOG(ZRLOG_INFO, nullptr)
            << "UnregisterRaw appears stalled. Possible dead/live lock! Function has looped " << counter
            << " times";
      }
    }
  }

  mutable std::mutex
      m_mtx;  // a leaf: held to append, erase or take the snapshot, never while an observer runs
  // Parallel, both guarded by m_mtx: entry i of each describes registration i. The strong slot of a weak
  // registration is null.
  std::vector<std::shared_ptr<Observer>> m_strongObservers;
  std::vector<std::weak_ptr<Observer>> m_weakObservers;
  // The thread that is notifying, or the blank id. Read and written without m_mtx; the last writer wins.
  mutable std::atomic<std::thread::id> m_inCallbackThreadId{AutoThreadResetter::GetBlankThreadId()};
};

}  // namespace zr
