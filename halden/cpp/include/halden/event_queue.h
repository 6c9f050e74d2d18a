// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "halden/data_center_status.h"
#include "halden/service_id.h"
#include "halden/service_watcher.h"
#include "zrstl/export.h"
#include "zrstl/string.h"
#include "zrstl/thread_safety.h"

namespace zr::halden {

/// What EventQueue hands out.
struct ZR_EXPORT ServiceEvent {
  enum class Kind : std::uint8_t {
    Added,
    Modified,
    Removed,
    /// The data centre's state has changed: its connection's, its freshness, or whether removals are held.
    State,
    /// The data centre is live, for the first time or again: the instances that it has read came before this.
    Synchronized,
  };

  bool IsInstance() const { return kind != Kind::State && kind != Kind::Synchronized; }

  Kind kind = Kind::Added;
  zr::String service;
  zr::String dcName;
  ServiceId id{};            ///< of an instance, as is `data`
  ServiceInstanceData data;  ///< empty for Removed
  DataCenterStatus
      status;  ///< for State and Synchronized: the newest; states that passed meanwhile are skipped
};

/// "added", "modified", "removed", "state", "synchronised"
ZR_EXPORT std::string_view ToString(ServiceEvent::Kind kind);
ZR_EXPORT std::ostream& operator<<(std::ostream& out, ServiceEvent::Kind kind);

/// An observer that hands events to a thread of the application's own, where every operation of a watcher may
/// be called, `DisconnectDC` and `StopManagedConnections` included. It is one stream: instances, states of data
/// centres, and for each data centre when all that it has read has been told.
///
///     const auto events = std::make_shared<zr::halden::EventQueue>();
///     watcher.RegisterShared(events);
///     watcher.StartManagedConnections();
///     while (const auto event = events->Pop()) Handle(*event);  // until Close
///
/// What waits for one instance of one data centre is merged: added and modified is added with the newer data;
/// added and removed is nothing; removed and added is both. So its memory is bounded by the number of
/// instances, however slow the consumer is; the last state is never lost, and what comes out is legal: added,
/// then modified any number of times, then removed. Instances come out in the order of their oldest change. Of a
/// data centre at most one State and one Synchronized wait, behind all instances that were told before them.
///
/// While it is registered it loses nothing; what was told before, it does not hear: register it before data centres
/// are connected. `AwaitDelivered` of the watcher says when it has all that is known. A data centre that was
/// disconnected and connected again tells its instances anew: those that the consumer has come out as
/// modified, and once all is read, those that are not there any more as removed; until then the consumer
/// keeps them. An event that was cut short, because an observer before the queue threw, is told to the queue
/// all the same; where the queue had it already, it may come out again as modified. What the watcher of a
/// connection that was removed still tells is passed over.
///
/// Threads: any thread may call any operation; one consumer, or several that do not mind the order between
/// them: each event wakes one. `Pop` waits; nothing else does.
/// Ownership: held by the watcher as registered; it holds no watcher.
/// Errors: an event that there is no memory for is logged and lost.
class ZR_EXPORT EventQueue final : public ServiceWatcherObserver {
 public:
  /// Throws std::system_error when no descriptor is to be had.
  EventQueue();
  ~EventQueue() override;

  EventQueue(const EventQueue&) = delete;
  EventQueue& operator=(const EventQueue&) = delete;

  /// The oldest event. Waits for one; null after `Close`, when all that was there has been taken.
  std::optional<ServiceEvent> Pop();
  /// As above; null also when none has come within `limit`.
  std::optional<ServiceEvent> PopFor(std::chrono::milliseconds limit);
  /// All that is there now.
  std::vector<ServiceEvent> Drain();

  /// Ends all waiting; what comes later is dropped.
  void Close();

  /// Instances with an event that waits, and states that do.
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
  friend class details::WatcherDelivery;

  using DataCenterKey = std::pair<zr::String, zr::String>;  // service, data centre
  using Key =
      std::pair<const DataCenterKey*, ServiceId>;  // in m_dataCenters: there are many instances of each

  struct Waiting {
    const Key* instance = nullptr;       // in m_instances; null for
    std::unique_ptr<ServiceEvent> told;  // what is no instance's
  };
  using Order = std::list<Waiting>;

  /// What waits of a data centre itself.
  struct DataCenter {
    std::optional<Order::iterator> state;
    std::optional<Order::iterator> synchronized;
  };

  /// What the consumer has, and what it is yet to be handed.
  struct Instance {
    std::shared_ptr<const std::atomic<bool>> current;  // whether the watcher that told it is still in use
    std::unique_ptr<ServiceInstanceData> data;         // to be handed out
    bool handedOut = false;                            // the consumer has it
    bool removed = false;                              // what the consumer has is gone, and perhaps back
    bool waits = false;
    Order::iterator place;  // in m_order, if it waits
  };
  using InstanceMap = std::map<Key, Instance>;

  void Change(const ServiceWatcher& watcher, const ServiceId& id, const ServiceInstanceData* data);
  const DataCenterKey* KeyOf(const ServiceWatcher& watcher) ZR_REQUIRES(m_mtx);
  void Reconcile(const ServiceWatcher& watcher);
  void Tell(const ServiceWatcher& watcher, ServiceEvent::Kind kind, const DataCenterStatus& status);
  std::optional<ServiceEvent> Take() ZR_REQUIRES(m_mtx);
  ServiceEvent TakeInstance(InstanceMap::iterator entry) ZR_REQUIRES(m_mtx);
  ServiceEvent TakeTold() ZR_REQUIRES(m_mtx);
  void Drop(std::optional<Order::iterator>& place) ZR_REQUIRES(m_mtx);
  void Remove(InstanceMap::iterator entry) ZR_REQUIRES(m_mtx);
  void Enqueue(InstanceMap::iterator entry) ZR_REQUIRES(m_mtx);
  void Dequeue(InstanceMap::iterator entry) ZR_REQUIRES(m_mtx);
  void Signal() ZR_REQUIRES(m_mtx);

  int m_descriptor = -1;  // constant after construction

  mutable zr::Mutex m_mtx;  // no foreign code runs with it held
  zr::ConditionVariable m_changed;
  InstanceMap m_instances ZR_GUARDED_BY(m_mtx);
  std::map<DataCenterKey, DataCenter> m_dataCenters ZR_GUARDED_BY(m_mtx);  // only grows
  Order m_order ZR_GUARDED_BY(m_mtx);                                      // what waits, oldest first
  bool m_readable ZR_GUARDED_BY(m_mtx) = false;                            // the descriptor is
  bool m_closed ZR_GUARDED_BY(m_mtx) = false;
};

}  // namespace zr::halden
