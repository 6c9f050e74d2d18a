// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "global_service_watcher_impl.h"

#include <chrono>
#include <stdexcept>
#include <tuple>
#include <utility>

#include "halden/error.h"
#include "logger/logger.h"

namespace zr::halden {

namespace {

const zr::logging::ConstSourcePtr g_log = zr::logging::MakeSource("halden.global_service_watcher");

constexpr std::chrono::seconds kSessionTimeout{30};

using WeakObserverPtr = std::weak_ptr<ServiceWatcherObserver>;

std::shared_ptr<Connection> MakeManagedConnection(const DataCenterEnsembleMapT::value_type& ensemble) {
  const std::vector<zr::String> host{ensemble.second};
  return std::make_shared<Connection>(host, true, zr::String(), kSessionTimeout, ensemble.first);
}

}  // namespace

GlobalServiceWatcherImpl::GlobalServiceWatcherImpl(GlobalServiceWatcher& watcher, const zr::String& name,
                                                   bool managedService, zr::String zookeeperConfigPath,
                                                   ZkErrorHandler zkErrorHandler)
    : m_watcher(watcher),
      m_name(name),
      m_managedService(managedService),
      m_zkErrorHandler(zkErrorHandler) {  // NOLINT(performance-unnecessary-value-param): copied, not moved
  if (m_managedService) {
    auto [processed, ensembles] = ParseZooKeeperConfig(zookeeperConfigPath);
    m_ensembles = std::move(ensembles);
    if (!processed) {
      const zr::String err = "Failed to process zookeeper config: " + zookeeperConfigPath;
      ZRLOG(ZRLOG_WARNING, g_log) << "failed to process zookeeper config: " << zookeeperConfigPath
                                  << "Service watch is not set for: " << m_name;
      // Abandoned on purpose: a bad configuration does not fail construction, and nobody frees the error.
      new FailedToParseZooConfig(err);  // NOLINT(bugprone-unused-raii,bugprone-throw-keyword-missing)
    }
  }
  ZRLOG(ZRLOG_INFO, g_log) << "global service watcher created, name=" << m_name
                           << ", managed_service=" << m_managedService
                           << ", ensembles_size=" << m_ensembles.size();
}

void GlobalServiceWatcherImpl::AddConnection(std::shared_ptr<Connection> conn) {
  if (!conn) throw std::invalid_argument("AddConnection: null connection");
  const std::lock_guard<std::mutex> lock(m_mtx);
  if (m_connections.find(conn) != m_connections.end()) return;
  if (m_managedService) {
    try {
      conn->Start(nullptr);
    } catch (const ZooError& e) {
      ZRLOG(ZRLOG_ERROR, g_log) << "Error initializing ZooKeeper client during initial connection: "
                                << e.what();
      throw;
    }
  }
  auto watcher = std::make_shared<ServiceWatcher>(conn, m_name, m_zkErrorHandler);
  watcher->RegisterWeak(WeakObserverPtr(shared_from_this()));
  watcher->Start();
  m_connections.emplace(std::move(conn), std::move(watcher));
}

void GlobalServiceWatcherImpl::RemoveConnection(const std::shared_ptr<Connection>& conn) {
  const std::lock_guard<std::mutex> lock(m_mtx);
  m_connections.erase(conn);
}

bool GlobalServiceWatcherImpl::HasConnection(zr::String dcName) {
  const std::lock_guard<std::mutex> lock(m_mtx);
  for (const auto& elem : m_connections) {
    if (elem.first->GetDCName() == dcName) return true;
  }
  return false;
}

std::shared_ptr<Connection> GlobalServiceWatcherImpl::GetConnection(zr::String dcName) {
  const std::lock_guard<std::mutex> lock(m_mtx);
  for (const auto& elem : m_connections) {
    if (elem.first->GetDCName() == dcName) return elem.first;
  }
  return nullptr;
}

void GlobalServiceWatcherImpl::StartManagedConnections() {
  if (!m_managedService) {
    ZRLOG(ZRLOG_ERROR, g_log) << "StartManagedConnections can only be called when application"
                                 "            wants library to manage service watcher connections.";
    throw HaldenError("Invalid Library Usage");
  }
  for (const auto& ensemble : m_ensembles) AddConnection(MakeManagedConnection(ensemble));
}

bool GlobalServiceWatcherImpl::ConnectDC(zr::String dcName) {
  ZRLOG(ZRLOG_INFO, g_log) << "ConnectDC called, dc_name=" << dcName;
  if (!m_managedService) {
    ZRLOG(ZRLOG_ERROR, g_log) << "ConnectDC can only be called when application"
                                 "            wants library to manage service watcher connections.";
    throw HaldenError("Invalid Library Usage");
  }
  const auto ensemble = m_ensembles.find(dcName);
  if (ensemble == m_ensembles.end()) {
    ZRLOG(ZRLOG_WARNING, g_log) << "ConnectDC doesn't have a zookeeper ensemble with dc_name=" << dcName;
    return false;
  }
  if (HasConnection(dcName)) {
    ZRLOG(ZRLOG_WARNING, g_log) << "ConnectDC already has a connection with dc_name=" << dcName;
    return false;
  }
  ZRLOG(ZRLOG_INFO, g_log) << "ConnectDC creating new zookeeper connection with dc_name=" << dcName;
  AddConnection(MakeManagedConnection(*ensemble));
  return true;
}

bool GlobalServiceWatcherImpl::DisconnectDC(zr::String dcName) {
  const std::shared_ptr<Connection> conn = GetConnection(dcName);
  if (!conn) {
    ZRLOG(ZRLOG_WARNING, g_log) << "DisconnectDC did not find matching connection, dc_name=" << dcName;
    return false;
  }
  ZRLOG(ZRLOG_INFO, g_log) << "DisconnectDC found matching connection, dc_name=" << dcName;
  conn->ForceExpire();
  if (!m_managedService || m_ensembles.empty()) return true;

  const std::lock_guard<std::mutex> lock(m_mtx);
  for (const auto& elem : m_connections) {
    if (elem.first->GetDCName() != dcName) continue;
    // Before Stop, so that no event of the end is relayed.
    elem.second->UnregisterWeak(WeakObserverPtr(shared_from_this()));
    elem.first->Stop();
    m_connections.erase(std::shared_ptr<Connection>(elem.first));  // the entry's own key dies in the call
    return true;
  }
  ZRLOG(ZRLOG_WARNING, g_log) << "DisconnectDC did not find matching connection during cleanup, dc_name="
                              << dcName;
  return false;
}

void GlobalServiceWatcherImpl::StopManagedConnections() {
  if (!m_managedService) {
    ZRLOG(ZRLOG_ERROR, g_log) << "StopManagedConnections can only be called when application"
                                 "            has setup library to manage service watcher connections.";
    throw HaldenError("Invalid Library Usage");
  }
  const std::lock_guard<std::mutex> lock(m_mtx);
  for (auto elem : m_connections) {  // NOLINT(performance-for-range-copy): both stay alive for the step
    elem.second->UnregisterWeak(WeakObserverPtr(shared_from_this()));
    elem.first->Stop();
  }
}

std::vector<ServiceId> GlobalServiceWatcherImpl::ListInstances() const {
  std::vector<ServiceId> allInstances;
  const std::lock_guard<std::mutex> lock(m_mtx);
  for (const auto& elem : m_connections) {
    const auto instances = elem.second->ListInstances();
    allInstances.insert(allInstances.end(), instances.begin(), instances.end());
  }
  return allInstances;
}

bool GlobalServiceWatcherImpl::GetInstanceData(const ServiceId& id, std::shared_ptr<ServiceWatcher>& watcher,
                                               ServiceInstanceData& data) const {
  const std::lock_guard<std::mutex> lock(m_mtx);
  for (const auto& elem : m_connections) {
    if (elem.second->GetInstanceData(id, data)) {
      watcher = elem.second;
      return true;
    }
  }
  return false;
}

void GlobalServiceWatcherImpl::OnInstanceAdded(ServiceWatcher& watcher, const ServiceId& instance,
                                               const ServiceInstanceData& data) {
  NotifyObservers(&ServiceWatcherObserver::OnInstanceAdded, watcher, instance, data);
}

void GlobalServiceWatcherImpl::OnInstanceRemoved(ServiceWatcher& watcher, const ServiceId& instance) {
  NotifyObservers(&ServiceWatcherObserver::OnInstanceRemoved, watcher, instance);
}

void GlobalServiceWatcherImpl::OnInstanceModified(ServiceWatcher& watcher, const ServiceId& instance,
                                                  const ServiceInstanceData& data) {
  NotifyObservers(&ServiceWatcherObserver::OnInstanceModified, watcher, instance, data);
}

}  // namespace zr::halden
