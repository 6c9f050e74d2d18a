// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "halden/audit_intervals.h"
#include "halden/connection_v2.h"
#include "halden/data_center_status.h"
#include "halden/mass_removal_guard.h"
#include "halden/service_id.h"
#include "halden/service_instance.h"
#include "halden/service_name.h"
#include "halden/service_watcher_observer.h"
#include "zrstl/export.h"
#include "zrstl/observable_impl.h"
#include "zrstl/string.h"

namespace zr::halden {

/// Takes a ZooKeeper error code. Runs on the thread that delivers the watcher's events; codes that wait to be
/// told are told once each.
using ZkErrorHandler = std::function<void(int)>;

class EventQueue;
class GlobalServiceWatcher;

namespace details {
class ServiceReader;
class WatcherDelivery;
}  // namespace details

/// Follows the instances of one service through one connection.
///
/// Truth: an instance is removed only on evidence from a live session, never because of a disconnect, an
/// expiry or a read that failed; until then what is known stays served (`Status` says how fresh it is). An
/// instance whose payload does not decode keeps its last good value; one that never had any is not announced.
/// Events: for each instance added, then any number of modified, then removed; each once, in order, from one
/// thread per connection. Changes that overtake a slow observer are merged: it then sees the newest state,
/// and memory stays bounded by the number of instances. A node deleted and created again is removed, then
/// added.
/// Threads: queries may be called from any thread and never wait for the network. A query inside a callback
/// shows that change, or a newer one. No lock is held while observers run.
/// Ownership: must be owned by a std::shared_ptr before `Start`. Shares ownership of its connection. Events
/// end with the last owner; a callback that is running then is finished first, and keeps the watcher alive
/// for it.
/// Errors: an observer that throws loses that event for the observers after it, but for an EventQueue; it is
/// logged to "halden.service_watcher" and nothing else is lost.
class ZR_EXPORT ServiceWatcher : public std::enable_shared_from_this<ServiceWatcher>,
                                 public zr::ObservableImpl<ServiceWatcherObserver> {
 public:
  /// `conn` must not be null. Throws std::invalid_argument for a null connection and for a service name that
  /// cannot be a node's name (see IsValidServiceName).
  ServiceWatcher(std::shared_ptr<Connection> conn, const zr::String& serviceName,
                 ZkErrorHandler errorHandler);
  ~ServiceWatcher() override;

  ServiceWatcher(const ServiceWatcher&) = delete;
  ServiceWatcher& operator=(const ServiceWatcher&) = delete;

  /// Begins to watch; the connection may be started before or after. A second call does nothing.
  void Start();

  /// Those held by the mass-removal guard included.
  std::vector<ServiceId> ListInstances() const;
  /// The instances whose node is gone and whose removal the guard holds back.
  std::vector<ServiceId> ListHeldInstances() const;

  /// True, with `data` filled, when the instance is known; else false, with `data` untouched.
  bool GetInstanceData(const ServiceId& id, ServiceInstanceData& data) const;

  /// Everything that is known, as it is at one moment: in one call what the queries above tell piece by piece.
  std::vector<ServiceInstance> Snapshot() const;

  const zr::String& ServiceName() const;
  const zr::String& DataCenterName() const;
  ServiceWatcherStatus Status() const;
  DataCenterStatus DataCenter() const;

  /// Null, as at the start: removals are never held. What another guard holds is removed at once; an
  /// equal one changes nothing. Throws as `Check`.
  void SetMassRemovalGuard(const std::optional<MassRemovalGuard>& guard);
  void SetAudit(const AuditIntervals& intervals);
  /// Takes the place of the one before, which may be running for a last time; null for none.
  void SetStatusHandler(DataCenterStatusHandler handler);

  /// Waits until the first complete read is done: true then, false at the deadline. Queries are complete from
  /// then on; observers may still be being told. Do not call it from a callback.
  bool AwaitSynchronized(std::chrono::milliseconds limit) const;
  /// As above, and then until observers have been told what is known by now: true then, false at the deadline.
  bool AwaitDelivered(std::chrono::milliseconds limit) const;

 private:
  friend class EventQueue;
  friend class GlobalServiceWatcher;
  friend class details::WatcherDelivery;

  const zr::String m_serviceName;
  const std::shared_ptr<Connection> m_conn;
  const std::shared_ptr<details::WatcherDelivery> m_delivery;
  const std::shared_ptr<details::ServiceReader> m_reader;
  std::atomic<bool> m_started{false};
  /// Not any more once this object is gone, or its connection was removed from its global watcher.
  const std::shared_ptr<std::atomic<bool>> m_current = std::make_shared<std::atomic<bool>>(true);
};

}  // namespace zr::halden
