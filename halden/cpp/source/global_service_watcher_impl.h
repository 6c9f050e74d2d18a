// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "halden/connection_v2.h"
#include "halden/service_id.h"
#include "halden/service_watcher.h"
#include "halden/utils.h"
#include "zr/messaging/halden/service.pb.h"
#include "zrstl/observable_impl.h"
#include "zrstl/string.h"

namespace zr::halden {

class GlobalServiceWatcher;

/// The global watcher behind the facade: one connection and one service watcher per data centre, queries over
/// all of them, and their events relayed unchanged to its own observers.
///
/// Threads: any thread may call any operation. It has no thread of its own; events are relayed on the threads
/// that the service watchers deliver them on, with no lock of its own held.
/// Ownership: must be owned by a std::shared_ptr. It co-owns connections and service watchers; these hold it
/// only weakly. The destructor stops nothing: it releases them.
/// Locks: m_mtx is taken first and is not recursive. AddConnection holds it across Connection::Start and
/// ServiceWatcher::Start; DisconnectDC and StopManagedConnections hold it while they wait for a running
/// relay to end and stop connections; the queries hold it while they ask each service watcher.
class GlobalServiceWatcherImpl : public std::enable_shared_from_this<GlobalServiceWatcherImpl>,
                                 public zr::ObservableImpl<ServiceWatcherObserver>,
                                 public ServiceWatcherObserver {
 public:
  /// `managedService`: the library makes the connections, from the configuration at `zookeeperConfigPath`,
  /// which is read here and never again. Nothing is connected yet.
  GlobalServiceWatcherImpl(GlobalServiceWatcher& watcher, const zr::String& name, bool managedService,
                           zr::String zookeeperConfigPath, ZkErrorHandler zkErrorHandler);
  ~GlobalServiceWatcherImpl() override = default;

  GlobalServiceWatcherImpl(const GlobalServiceWatcherImpl&) = delete;
  GlobalServiceWatcherImpl& operator=(const GlobalServiceWatcherImpl&) = delete;

  // The connection registry. AddConnection refuses a null connection with std::invalid_argument.
  void AddConnection(std::shared_ptr<Connection> conn);
  void RemoveConnection(const std::shared_ptr<Connection>& conn);
  bool HasConnection(zr::String dcName);
  std::shared_ptr<Connection> GetConnection(zr::String dcName);

  // Managed connections.
  void StartManagedConnections();
  bool ConnectDC(zr::String dcName);
  bool DisconnectDC(zr::String dcName);
  void StopManagedConnections();

  // Queries over all data centres.
  std::vector<ServiceId> ListInstances() const;
  bool GetInstanceData(const ServiceId& id, std::shared_ptr<ServiceWatcher>& watcher,
                       ServiceInstanceData& data) const;

  // The relay.
  void OnInstanceAdded(ServiceWatcher& watcher, const ServiceId& instance,
                       const ServiceInstanceData& data) override;
  void OnInstanceRemoved(ServiceWatcher& watcher, const ServiceId& instance) override;
  void OnInstanceModified(ServiceWatcher& watcher, const ServiceId& instance,
                          const ServiceInstanceData& data) override;

 private:
  friend class GlobalServiceWatcher;  // status of each data centre, from m_connections and m_ensembles

  using ConnectionMapT = std::unordered_map<std::shared_ptr<Connection>, std::shared_ptr<ServiceWatcher>>;

  /// A copy of the registry, taken under m_mtx.
  ConnectionMapT Connections() const {
    const std::lock_guard<std::mutex> lock(m_mtx);
    return m_connections;
  }

  GlobalServiceWatcher& m_watcher;  // as it was made: never read, since it may have been moved since
  mutable std::mutex m_mtx;         // guards m_connections
  zr::String m_name;                // constant after construction, as is all below but m_connections
  ConnectionMapT m_connections;     // guarded by m_mtx
  DataCenterEnsembleMapT m_ensembles;
  bool m_managedService;
  ZkErrorHandler m_zkErrorHandler;
};

}  // namespace zr::halden
