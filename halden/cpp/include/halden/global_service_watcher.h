// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "halden/connection_v2.h"
#include "halden/error.h"
#include "halden/service_id.h"
#include "halden/service_watcher.h"
#include "zrstl/export.h"
#include "zrstl/observable.h"
#include "zrstl/string.h"

namespace zr::halden {

class GlobalServiceWatcherImpl;
class ServicePublisher;

/// The library makes and manages one connection per data centre of the configuration file at `configPath`.
struct LibraryManaged {
  zr::String configPath;
};

/// The application makes, starts and stops its connections and hands them in with `AddConnection`.
struct ApplicationManaged {};

/// Follows one service in all data centres at once: merged instance lists, instance data, and events.
///
///     zr::halden::GlobalServiceWatcher watcher("orders", zr::halden::LibraryManaged{"halden.toml"});
///     watcher.RegisterShared(std::make_shared<MyObserver>());
///     watcher.StartManagedConnections();
///     if (!watcher.AwaitSynchronized(std::chrono::seconds(10))) { ... }  // not all is known
///     for (const auto& instance : watcher.Snapshot()) { ... }
///
/// Threads: every operation may be called from any thread; none waits for the network but those named
/// `Await...` and `Close`. Events of one data centre arrive in order on one thread; those of different data
/// centres arrive concurrently. See ServiceWatcher for what events promise.
/// Callbacks: an observer may call every operation but those named `Await...` and `Close` from inside a
/// callback, with one exception: while another thread is in `DisconnectDC` or `StopManagedConnections`, which
/// wait for running callbacks with the watcher's lock held, an operation that takes that lock (queries,
/// connection operations, `Status`) deadlocks with it. Programs that disconnect while they run hand events to
/// a thread of their own instead.
/// Observers: registered as in zrstl/observable_impl.h. Data centres notify concurrently, so unregistering is
/// exact only once `StopManagedConnections` or `Close` has returned; before that it may return while another
/// data centre's callback still runs, which the registration keeps alive. One instance published in two data
/// centres is two instances: the `watcher` argument tells them apart.
/// Ownership: connections and per-data-centre watchers are shared. Destruction releases them, which closes
/// the sessions of library-managed mode in the background; `Close` does it in order and waits. A callback
/// that is running on another thread may end after the destructor; after `Close` none runs.
/// Snapshot files: off unless the configuration has a `snapshot_folder`, or SetSnapshotFolder is called.
/// Errors: the constructors throw std::invalid_argument for a name that no service can have (see
/// IsValidServiceName). Library-managed operations on an application-managed watcher throw
/// HaldenError ("Invalid Library Usage"); a connect string that can never work throws ZooError when it is
/// connected. A configuration that cannot be read is no error of construction: it is logged, and what could be
/// read of it counts.
class ZR_EXPORT GlobalServiceWatcher final : public zr::Observable<ServiceWatcherObserver> {
 public:
  GlobalServiceWatcher(const zr::String& serviceName, LibraryManaged mode, ZkErrorHandler errorHandler = {});
  GlobalServiceWatcher(const zr::String& serviceName, ApplicationManaged mode,
                       ZkErrorHandler errorHandler = {});
  ~GlobalServiceWatcher() override;

  GlobalServiceWatcher(const GlobalServiceWatcher&) = delete;
  GlobalServiceWatcher& operator=(const GlobalServiceWatcher&) = delete;
  /// While no other thread is in one of its operations. What was moved from can be destroyed and assigned to, and
  /// nothing else.
  GlobalServiceWatcher(GlobalServiceWatcher&&) noexcept;
  GlobalServiceWatcher& operator=(GlobalServiceWatcher&& other) noexcept;

  // Observers
  void RegisterShared(std::shared_ptr<ServiceWatcherObserver> observer) override;
  void RegisterWeak(std::weak_ptr<ServiceWatcherObserver> observer) override;
  void UnregisterShared(const std::shared_ptr<ServiceWatcherObserver>& observer) override;
  void UnregisterWeak(const std::weak_ptr<ServiceWatcherObserver>& observer) override;
  void UnregisterRaw(const ServiceWatcherObserver* observer) override;

  // Library-managed mode

  /// Connects every configured data centre, also those connected already: call it once.
  void StartManagedConnections();
  /// Connects one data centre; false when it is not configured or is connected already.
  bool ConnectDC(const zr::String& dcName);
  /// Ends the data centre's session and, in library-managed mode, stops and forgets its connection; false
  /// when it has none. Its instances are no longer listed; observers hear no removals.
  bool DisconnectDC(const zr::String& dcName);
  /// Stops all connections. What is known stays served; observers hear no more.
  void StopManagedConnections();

  // Application-managed mode

  /// Follows the service through `conn`; the application starts and stops it. Throws std::invalid_argument
  /// for null.
  void AddConnection(std::shared_ptr<Connection> conn);
  /// Forgets the connection, and nothing more: it is not stopped. Its events end with its watcher, which ends
  /// here unless the application shares it.
  void RemoveConnection(const std::shared_ptr<Connection>& conn);

  bool HasConnection(const zr::String& dcName) const;
  /// Null where the data centre is not connected. Other watchers and publishers may use it too, in library-managed
  /// mode until `DisconnectDC`, `StopManagedConnections` or `Close` stops it.
  std::shared_ptr<Connection> GetConnection(const zr::String& dcName) const;

  /// In either mode: publishes an instance of this service in the data centre, over the connection that is there
  /// already, which the publisher keeps; it ends with that connection (`DisconnectDC`, `Close`). Throws
  /// std::invalid_argument when the data centre has none. Its nodes are protected as the configuration says, unless
  /// `acl` says otherwise. See halden/service_publisher.h.
  ServicePublisher MakePublisher(const zr::String& dcName, const ServiceId& id = MakeServiceId(),
                                 const zr::String& acl = {}) const;

  // Queries

  /// All that is known, with its data centre and how far that can be trusted; by data centre, in the order of
  /// their names. A copy: it costs as much as the instances' data.
  std::vector<ServiceInstance> Snapshot() const;

  /// The instances of all data centres, one after the other: neither sorted nor without duplicates; those
  /// held by the mass-removal guard included.
  std::vector<ServiceId> ListInstances() const;
  /// False when no data centre knows `id`; else fills `data` and says in `watcher` which one does: any of them,
  /// where several do.
  bool GetInstanceData(const ServiceId& id, std::shared_ptr<ServiceWatcher>& watcher,
                       ServiceInstanceData& data) const;

  /// The watcher of every connected data centre, in no particular order.
  std::vector<std::shared_ptr<ServiceWatcher>> Watchers() const;
  /// The names of the data centres that the configuration holds, sorted.
  std::vector<zr::String> ConfiguredDataCenters() const;
  /// Every connected data centre, sorted by name.
  std::vector<DataCenterStatus> Status() const;

  /// Waits until every connected data centre has been read completely once: true then, false at the deadline. False
  /// at once when there is none: an empty configuration must not look like an empty service.
  bool AwaitSynchronized(std::chrono::milliseconds limit) const;
  /// As above for the named ones; false at once when one of them has no connection, or none is named.
  bool AwaitSynchronized(const std::vector<zr::String>& dcNames, std::chrono::milliseconds limit) const;
  /// As the first, and then until observers have been told what was known by then: what an EventQueue holds
  /// stands for all of it.
  bool AwaitDelivered(std::chrono::milliseconds limit) const;

  // Settings. They hold for every data centre, those connected later included.

  /// Off at the start. See MassRemovalGuard; null turns it off, and what is held is removed then. Throws
  /// std::invalid_argument for values that are out of range.
  void SetMassRemovalGuard(const std::optional<MassRemovalGuard>& guard);
  /// At the start the defaults of AuditIntervals.
  void SetAudit(const AuditIntervals& intervals);
  /// Keeps what is known in files of this folder, which is made where there is none: one for each data centre that has a
  /// name. Each is written every few seconds if something has changed, and in the end (`Close` waits for that, the
  /// destructor does not). A process that starts then knows at once what one before it knew last: where the first
  /// complete read has not been made yet, the file's instances are announced as added and the data centre is Restored;
  /// the first read tells what is different. Files older than `maxAge`, damaged, or of another user are not used.
  /// Call it before data centres are connected. Files are read by the thread that connects, a few milliseconds for
  /// 10,000 instances. Any number of processes of one user may share a folder. Empty: no files, as at the start.
  void SetSnapshotFolder(const std::string& folder, std::chrono::seconds maxAge = std::chrono::hours(24));
  /// Writes those files now, as far as they can be and something has changed, and waits for it: true then, or where there
  /// is no folder, false at the deadline. For the end of a program in application-managed mode, which has no `Close`.
  bool WriteSnapshots(std::chrono::milliseconds limit) const;
  /// Is told of every data centre's changes of state (see DataCenterStatusHandler), of different ones
  /// concurrently. Takes the place of the one before; null for none. As a callback, it is bound by what is
  /// said above; the status it is given is all that it needs to ask.
  void SetStatusHandler(DataCenterStatusHandler handler);

  /// Library-managed mode: stops all connections, and waits until their sessions are closed, no callback runs
  /// any more, handlers included, and snapshot files are written, as far as they can be; false when that was
  /// not so at the deadline. Not from a callback.
  bool Close(std::chrono::milliseconds limit);

 private:
  void ApplySettings();
  void ReadSnapshots(const std::vector<zr::String>& dcNames);
  void Release(bool all);

  struct Settings;

  std::shared_ptr<GlobalServiceWatcherImpl> m_impl;  // null once moved from
  std::unique_ptr<Settings> m_settings;
};

}  // namespace zr::halden
