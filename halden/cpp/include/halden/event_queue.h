// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

#include "halden/service_id.h"
#include "halden/service_watcher.h"
#include "zrstl/export.h"
#include "zrstl/string.h"

namespace zr::halden {

enum class InstanceChange : std::uint8_t { Added, Modified, Removed };

/// "added", "modified", "removed"
ZR_EXPORT std::string_view ToString(InstanceChange change);

/// One change of one instance, as EventQueue hands it out.
struct InstanceEvent {
  InstanceChange change = InstanceChange::Added;
  zr::String dcName;
  ServiceId id{};
  ServiceInstanceData data;  ///< empty for Removed
};

/// An observer that hands events to a thread of the application's own, where every operation of a watcher may
/// be called, `DisconnectDC` and `StopManagedConnections` included.
///
///     const auto events = std::make_shared<zr::halden::EventQueue>();
///     watcher.RegisterShared(events);
///     watcher.StartManagedConnections();
///     while (const auto event = events->Pop()) Handle(*event);  // until Close
///
/// What waits for one instance of one data centre is merged: added and modified is added with the newer data;
/// added and removed is nothing; removed and added is both. So its memory is bounded by the number of
/// instances, however slow the consumer is; the last state is never lost, and what comes out is legal: added,
/// then modified any number of times, then removed. Instances come out in the order of their oldest change.
/// A data centre that was disconnected and connected again tells its instances anew: those that the consumer
/// has come out as modified.
///
/// Threads: any thread may call any operation; one consumer, or several that do not mind the order between
/// them. `Pop` waits; nothing else does.
/// Ownership: held by the watcher as registered; it holds no watcher.
class ZR_EXPORT EventQueue final : public ServiceWatcherObserver {
 public:
  /// Throws std::system_error when no descriptor is to be had.
  EventQueue();
  ~EventQueue() override;

  EventQueue(const EventQueue&) = delete;
  EventQueue& operator=(const EventQueue&) = delete;

  /// The oldest event. Waits for one; null after `Close`, when all that was there has been taken.
  std::optional<InstanceEvent> Pop();
  /// As above; null also when none has come within `limit`.
  std::optional<InstanceEvent> PopFor(std::chrono::milliseconds limit);
  /// All that is there now.
  std::vector<InstanceEvent> Drain();

  /// Ends all waiting; what comes later is dropped.
  void Close();

  /// Instances with an event that waits.
  std::size_t Size() const;

  /// For event loops: readable (poll, epoll) while there are events, and after `Close`. To be polled only,
  /// never read.
  int Descriptor() const { return m_descriptor; }

  void OnInstanceAdded(ServiceWatcher& watcher, const ServiceId& instance,
                       const ServiceInstanceData& data) override;
  void OnInstanceRemoved(ServiceWatcher& watcher, const ServiceId& instance) override;
  void OnInstanceModified(ServiceWatcher& watcher, const ServiceId& instance,
                          const ServiceInstanceData& data) override;

 private:
  using Key = std::pair<zr::String, ServiceId>;

  /// From what the consumer has been handed to what is so now.
  struct Pending {
    bool removed = false;  // what the consumer has is gone, and perhaps back
    std::optional<ServiceInstanceData> data;
    std::list<Key>::iterator place;  // in m_order
  };

  void Change(const ServiceWatcher& watcher, const ServiceId& id, const ServiceInstanceData* data);
  std::optional<InstanceEvent> Take();
  void Erase(std::map<Key, Pending>::iterator entry);
  void Signal();

  int m_descriptor = -1;  // constant after construction

  mutable std::mutex m_mtx;  // guards all below; no foreign code runs with it held
  std::condition_variable m_changed;
  std::map<Key, Pending> m_pending;
  std::list<Key> m_order;     // the keys of m_pending, oldest first
  std::set<Key> m_handedOut;  // what the consumer has
  bool m_readable = false;    // the descriptor is
  bool m_closed = false;
};

}  // namespace zr::halden
