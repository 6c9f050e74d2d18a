// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <sstream>
#include <string_view>
#include <utility>
#include <vector>

#include "halden/instance_change.h"
#include "halden/service_watcher.h"
#include "support/await.h"
#include "support/view.h"

namespace zr::halden::test {

using EventKind = InstanceChange;

struct Event {
  EventKind kind;
  zr::String dcName;
  ServiceId id;
  ServiceInstanceData data;  ///< empty for Removed
};

inline std::ostream& operator<<(std::ostream& out, const Event& event) {
  return out << ToString(event.kind) << " " << event.dcName << "/" << event.id << " " << event.data.host()
             << " " << event.data.version();
}

/// Adds the event to what an observer has been told. False for an illegal one: per data centre and instance first
/// added, then modified any number of times, then removed.
inline bool Take(View& told, const Event& event) {
  const InstanceKey key(event.dcName, event.id);
  const bool legal = told.contains(key) == (event.kind != EventKind::Added);
  told[key] = event.data.host();
  if (event.kind == EventKind::Removed) told.erase(key);
  return legal;
}

/// An observer to which all events are one.
class EventObserver : public ServiceWatcherObserver {
 private:
  void OnInstanceAdded(ServiceWatcher& watcher, const ServiceId& id,
                       const ServiceInstanceData& data) override {
    OnEvent(watcher, {EventKind::Added, watcher.DataCenterName(), id, data});
  }
  void OnInstanceRemoved(ServiceWatcher& watcher, const ServiceId& id) override {
    OnEvent(watcher, {EventKind::Removed, watcher.DataCenterName(), id, {}});
  }
  void OnInstanceModified(ServiceWatcher& watcher, const ServiceId& id,
                          const ServiceInstanceData& data) override {
    OnEvent(watcher, {EventKind::Modified, watcher.DataCenterName(), id, data});
  }
  virtual void OnEvent(ServiceWatcher& watcher, Event event) = 0;
};

/// Keeps every event, and fails the test as soon as one is illegal.
class RecordingObserver : public EventObserver {
 public:
  using EventList = std::vector<Event>;
  using Hook = std::function<void(ServiceWatcher&, const Event&)>;

  /// `hook` runs in every callback before the event is kept: who has awaited the event finds it finished.
  explicit RecordingObserver(Hook hook = {}) : m_hook(std::move(hook)) {}

  EventList Events() const {
    const std::lock_guard lock(m_mtx);
    return m_events;
  }

  /// The events of one instance in one data centre, in order.
  std::vector<EventKind> History(const zr::String& dcName, const ServiceId& id) const {
    const std::lock_guard lock(m_mtx);
    std::vector<EventKind> kinds;
    for (const auto& event : m_events) {
      if (event.dcName == dcName && event.id == id) kinds.push_back(event.kind);
    }
    return kinds;
  }

  /// Waits until `reached` holds for the list of events; on failure the message lists them.
  ::testing::AssertionResult Await(std::string_view what,
                                   const std::function<bool(const EventList&)>& reached) {
    std::unique_lock lock(m_mtx);
    if (m_recorded.wait_for(lock, kLimit, [&] { return reached(m_events); }))
      return ::testing::AssertionSuccess();
    auto failure = ::testing::AssertionFailure() << "never seen: " << what << "; seen instead:";
    for (const auto& event : m_events) failure << "\n  " << event;
    return failure;
  }

  /// Waits for `count` such events of an instance.
  ::testing::AssertionResult Await(EventKind kind, const zr::String& dcName, const ServiceId& id,
                                   int count = 1) {
    std::ostringstream what;
    what << count << " times " << Event{kind, dcName, id, {}};
    return Await(what.str(), [&](const EventList& events) {
      return count <= std::count_if(events.begin(), events.end(), [&](const Event& event) {
               return event.kind == kind && event.dcName == dcName && event.id == id;
             });
    });
  }

  /// Waits until the latest event of the instance shows `host`.
  ::testing::AssertionResult AwaitHost(const zr::String& dcName, const ServiceId& id,
                                       const zr::String& host) {
    return Await(dcName + "/" + ToString(id) + " on host " + host, [&](const EventList& events) {
      const auto latest = std::find_if(events.rbegin(), events.rend(), [&](const Event& event) {
        return event.dcName == dcName && event.id == id;
      });
      return latest != events.rend() && latest->data.host() == host;
    });
  }

 private:
  void OnEvent(ServiceWatcher& watcher, Event event) override {
    if (m_hook) m_hook(watcher, event);
    const std::lock_guard lock(m_mtx);
    EXPECT_TRUE(Take(m_told, event)) << "illegal event: " << event;
    m_events.push_back(std::move(event));
    m_recorded.notify_all();
  }

  const Hook m_hook;
  mutable std::mutex m_mtx;
  std::condition_variable m_recorded;
  EventList m_events;  // guarded by m_mtx
  View m_told;         // guarded by m_mtx
};

/// The codes that an error handler was given.
class ErrorCodes {
 public:
  ZkErrorHandler Handler() const {
    return [seen = m_seen](int code) {
      const std::lock_guard lock(seen->mtx);
      seen->codes.push_back(code);
      seen->added.notify_all();
    };
  }

  /// Waits for the code to be given, anew for each call.
  ::testing::AssertionResult Await(int code) const {
    std::unique_lock lock(m_seen->mtx);
    const auto has = [&] { return std::erase(m_seen->codes, code) > 0; };
    if (m_seen->added.wait_for(lock, kLimit, has)) return ::testing::AssertionSuccess();
    auto failure = ::testing::AssertionFailure() << "the error handler never heard " << code << "; instead:";
    for (const int other : m_seen->codes) failure << " " << other;
    return failure;
  }

 private:
  /// Shared with the handlers, which may outlive the test.
  struct Seen {
    std::mutex mtx;
    std::condition_variable added;
    std::vector<int> codes;  // guarded by mtx
  };

  const std::shared_ptr<Seen> m_seen = std::make_shared<Seen>();
};

}  // namespace zr::halden::test
