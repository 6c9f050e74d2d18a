// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "halden/global_service_watcher.h"

#include <algorithm>
#include <filesystem>
#include <future>
#include <iterator>
#include <set>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "base/clock.h"
#include "base/wait_limit.h"
#include "global_service_watcher_impl.h"
#include "halden/service_publisher.h"
#include "halden/zookeeper_config.h"
#include "session/connection_core.h"
#include "snapshot/snapshot_keeper.h"
#include "watch/observer_thread.h"
#include "zrstl/thread_safety.h"

namespace zr::halden {

namespace {

using details::Clock;

std::chrono::milliseconds Until(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return std::max(left, std::chrono::milliseconds::zero());
}

/// False where there is nothing to wait for.
bool AwaitAll(bool (ServiceWatcher::*await)(std::chrono::milliseconds) const,
              const std::vector<std::shared_ptr<ServiceWatcher>>& watchers, std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + details::WaitLimit(limit);
  const auto awaitOne = [&](const auto& watcher) { return (*watcher.*await)(Until(deadline)); };
  return !watchers.empty() && std::all_of(watchers.begin(), watchers.end(), awaitOne);
}

/// Waits until what was to be delivered before the call is, gathered or not.
bool AwaitPosted(const Connection& conn, std::chrono::milliseconds limit) {
  const auto delivered = std::make_shared<std::promise<void>>();
  const auto thread = details::CoreOf(conn)->FindShared<details::ObserverThread>();
  if (!thread) return true;
  // The way that deliveries go.
  details::CoreOf(conn)->Post(
      [thread, delivered] { thread->PostGathered([delivered] { delivered->set_value(); }); });
  return delivered->get_future().wait_for(limit) == std::future_status::ready;
}

/// Refused here rather than when the first data centre is connected.
const zr::String& CheckedName(const zr::String& name) {
  if (!IsValidServiceName(name)) throw std::invalid_argument("GlobalServiceWatcher: invalid service name");
  return name;
}

}  // namespace

struct GlobalServiceWatcher::Settings {
  zr::Mutex mtx;  // no foreign code runs with it held
  std::optional<MassRemovalGuard> guard ZR_GUARDED_BY(mtx);
  std::optional<AuditIntervals> audit ZR_GUARDED_BY(mtx);
  std::shared_ptr<const DataCenterStatusHandler> statusHandler ZR_GUARDED_BY(mtx);
  std::shared_ptr<details::SnapshotKeeper> snapshots ZR_GUARDED_BY(mtx);
  // That have these settings.
  std::set<std::weak_ptr<ServiceWatcher>, std::owner_less<>> equipped ZR_GUARDED_BY(mtx);

  std::shared_ptr<details::SnapshotKeeper> Snapshots() {
    const zr::MutexLock lock(mtx);
    return snapshots;
  }
};

GlobalServiceWatcher::GlobalServiceWatcher(const zr::String& serviceName, LibraryManaged mode,
                                           ZkErrorHandler errorHandler)
    : m_impl(std::make_shared<GlobalServiceWatcherImpl>(*this, CheckedName(serviceName), true,
                                                        mode.configPath, std::move(errorHandler))),
      m_settings(std::make_unique<Settings>()) {
  const zr::String path = std::move(mode.configPath);
  // What is no file, a pipe say, was read already, and cannot be read again.
  std::error_code none;
  if (std::filesystem::is_regular_file(path, none))
    SetSnapshotFolder(ReadZooKeeperConfig(path).snapshotFolder);
}

GlobalServiceWatcher::GlobalServiceWatcher(const zr::String& serviceName, ApplicationManaged /*mode*/,
                                           ZkErrorHandler errorHandler)
    : m_impl(std::make_shared<GlobalServiceWatcherImpl>(*this, CheckedName(serviceName), false, zr::String(),
                                                        std::move(errorHandler))),
      m_settings(std::make_unique<Settings>()) {}

GlobalServiceWatcher::~GlobalServiceWatcher() {
  if (m_settings) Release(true);
}

GlobalServiceWatcher::GlobalServiceWatcher(GlobalServiceWatcher&&) noexcept = default;

GlobalServiceWatcher& GlobalServiceWatcher::operator=(GlobalServiceWatcher&& other) noexcept {
  GlobalServiceWatcher moved(std::move(other));
  std::swap(m_impl, moved.m_impl);
  std::swap(m_settings, moved.m_settings);
  return *this;  // `moved` ends what was here
}

void GlobalServiceWatcher::RegisterShared(std::shared_ptr<ServiceWatcherObserver> observer) {
  m_impl->RegisterShared(std::move(observer));
}

void GlobalServiceWatcher::RegisterWeak(std::weak_ptr<ServiceWatcherObserver> observer) {
  m_impl->RegisterWeak(std::move(observer));
}

void GlobalServiceWatcher::UnregisterShared(const std::shared_ptr<ServiceWatcherObserver>& observer) {
  m_impl->UnregisterShared(observer);
}

void GlobalServiceWatcher::UnregisterWeak(const std::weak_ptr<ServiceWatcherObserver>& observer) {
  m_impl->UnregisterWeak(observer);
}

void GlobalServiceWatcher::UnregisterRaw(const ServiceWatcherObserver* observer) {
  m_impl->UnregisterRaw(observer);
}

void GlobalServiceWatcher::StartManagedConnections() {
  ReadSnapshots(ConfiguredDataCenters());
  try {
    m_impl->StartManagedConnections();
  } catch (...) {
    ApplySettings();  // those that were connected before the one that failed
    throw;
  }
  ApplySettings();
}

bool GlobalServiceWatcher::ConnectDC(const zr::String& dcName) {
  if (m_impl->m_ensembles.contains(dcName) && !HasConnection(dcName)) ReadSnapshots({dcName});
  const bool connected = m_impl->ConnectDC(dcName);
  if (connected) ApplySettings();
  return connected;
}

bool GlobalServiceWatcher::DisconnectDC(const zr::String& dcName) {
  const bool disconnected = m_impl->DisconnectDC(dcName);
  Release(false);
  return disconnected;
}

void GlobalServiceWatcher::StopManagedConnections() {
  m_impl->StopManagedConnections();
}

void GlobalServiceWatcher::AddConnection(std::shared_ptr<Connection> conn) {
  if (conn) ReadSnapshots({conn->DataCenterName()});
  m_impl->AddConnection(std::move(conn));
  ApplySettings();
}

void GlobalServiceWatcher::RemoveConnection(const std::shared_ptr<Connection>& conn) {
  m_impl->RemoveConnection(conn);
  Release(false);
}

bool GlobalServiceWatcher::HasConnection(const zr::String& dcName) const {
  return m_impl->HasConnection(dcName);
}

std::shared_ptr<Connection> GlobalServiceWatcher::GetConnection(const zr::String& dcName) const {
  return m_impl->GetConnection(dcName);
}

ServicePublisher GlobalServiceWatcher::MakePublisher(const zr::String& dcName, const ServiceId& id,
                                                     const zr::String& acl) const {
  auto conn = m_impl->GetConnection(dcName);
  if (!conn) throw std::invalid_argument("MakePublisher: no connection to data centre \"" + dcName + "\"");
  return {std::move(conn), m_impl->m_name, id, acl};
}

std::vector<ServiceInstance> GlobalServiceWatcher::Snapshot() const {
  auto watchers = Watchers();
  std::sort(watchers.begin(), watchers.end(),
            [](const auto& a, const auto& b) { return a->DataCenterName() < b->DataCenterName(); });
  std::vector<ServiceInstance> all;
  for (const auto& watcher : watchers) {
    auto instances = watcher->Snapshot();
    std::move(instances.begin(), instances.end(), std::back_inserter(all));
  }
  return all;
}

std::vector<ServiceId> GlobalServiceWatcher::ListInstances() const {
  return m_impl->ListInstances();
}

bool GlobalServiceWatcher::GetInstanceData(const ServiceId& id, std::shared_ptr<ServiceWatcher>& watcher,
                                           ServiceInstanceData& data) const {
  return m_impl->GetInstanceData(id, watcher, data);
}

std::vector<std::shared_ptr<ServiceWatcher>> GlobalServiceWatcher::Watchers() const {
  std::vector<std::shared_ptr<ServiceWatcher>> watchers;
  for (const auto& [conn, watcher] : m_impl->Connections()) watchers.push_back(watcher);
  return watchers;
}

std::vector<zr::String> GlobalServiceWatcher::ConfiguredDataCenters() const {
  std::vector<zr::String> names;
  for (const auto& [name, ensemble] : m_impl->m_ensembles) names.push_back(name);
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<DataCenterStatus> GlobalServiceWatcher::Status() const {
  std::vector<DataCenterStatus> all;
  for (const auto& watcher : Watchers()) all.push_back(watcher->DataCenter());
  std::sort(all.begin(), all.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
  return all;
}

bool GlobalServiceWatcher::AwaitSynchronized(std::chrono::milliseconds limit) const {
  return AwaitAll(&ServiceWatcher::AwaitSynchronized, Watchers(), limit);
}

bool GlobalServiceWatcher::AwaitDelivered(std::chrono::milliseconds limit) const {
  return AwaitAll(&ServiceWatcher::AwaitDelivered, Watchers(), limit);
}

bool GlobalServiceWatcher::AwaitSynchronized(const std::vector<zr::String>& dcNames,
                                             std::chrono::milliseconds limit) const {
  std::vector<std::shared_ptr<ServiceWatcher>> named;
  const auto watchers = Watchers();
  for (const auto& name : dcNames) {
    const auto found = std::find_if(watchers.begin(), watchers.end(),
                                    [&](const auto& watcher) { return watcher->DataCenterName() == name; });
    if (found == watchers.end()) return false;
    named.push_back(*found);
  }
  return AwaitAll(&ServiceWatcher::AwaitSynchronized, named, limit);
}

void GlobalServiceWatcher::SetMassRemovalGuard(const std::optional<MassRemovalGuard>& guard) {
  Check(guard);
  {
    const zr::MutexLock lock(m_settings->mtx);
    m_settings->guard = guard;
    m_settings->equipped.clear();
  }
  ApplySettings();
}

void GlobalServiceWatcher::SetAudit(const AuditIntervals& intervals) {
  {
    const zr::MutexLock lock(m_settings->mtx);
    m_settings->audit = intervals;
    m_settings->equipped.clear();
  }
  ApplySettings();
}

void GlobalServiceWatcher::SetSnapshotFolder(const std::string& folder, std::chrono::seconds maxAge) {
  std::shared_ptr<details::SnapshotKeeper> changed;
  if (!folder.empty()) changed = std::make_shared<details::SnapshotKeeper>(folder, m_impl->m_name, maxAge);
  {
    const zr::MutexLock lock(m_settings->mtx);
    m_settings->snapshots.swap(changed);
  }
  const auto watchers = Watchers();
  if (const auto snapshots = m_settings->Snapshots()) {
    for (const auto& watcher : watchers) snapshots->Add(watcher, watcher->m_delivery);
  }
}

bool GlobalServiceWatcher::WriteSnapshots(std::chrono::milliseconds limit) const {
  const auto snapshots = m_settings->Snapshots();
  return !snapshots || snapshots->Flush(limit);
}

void GlobalServiceWatcher::ReadSnapshots(const std::vector<zr::String>& dcNames) {
  if (const auto snapshots = m_settings->Snapshots()) snapshots->ReadAhead(dcNames);
}

void GlobalServiceWatcher::SetStatusHandler(DataCenterStatusHandler handler) {
  auto changed = handler ? std::make_shared<const DataCenterStatusHandler>(std::move(handler)) : nullptr;
  {
    const zr::MutexLock lock(m_settings->mtx);
    m_settings->statusHandler.swap(changed);
    m_settings->equipped.clear();
  }
  ApplySettings();
}

/// Takes the status handler from all watchers, or from those that are registered no more, which are out of use
/// then: the application may hold on to them.
void GlobalServiceWatcher::Release(bool all) {
  std::vector<std::shared_ptr<ServiceWatcher>> gone;
  {
    const zr::MutexLock lock(m_settings->mtx);
    for (const auto& weak : m_settings->equipped) {
      if (auto watcher = weak.lock()) gone.push_back(std::move(watcher));
    }
  }
  if (!all) {
    const auto kept = Watchers();  // asked after the above: one that was equipped is registered by now
    std::erase_if(gone,
                  [&](const auto& one) { return std::find(kept.begin(), kept.end(), one) != kept.end(); });
    for (const auto& watcher : gone) *watcher->m_current = false;
    if (const auto snapshots = m_settings->Snapshots()) snapshots->Retain(kept);
  }
  {
    const zr::MutexLock lock(m_settings->mtx);
    for (const auto& watcher : gone) m_settings->equipped.erase(watcher);
  }
  for (const auto& watcher : gone) watcher->SetStatusHandler({});
}

/// Hands the settings to the watchers that do not have them yet.
void GlobalServiceWatcher::ApplySettings() {
  const auto watchers = Watchers();
  zr::MutexLock lock(m_settings->mtx);
  const auto snapshots = m_settings->snapshots;
  std::erase_if(m_settings->equipped, [](const auto& weak) { return weak.expired(); });
  for (const auto& watcher : watchers) {
    if (!m_settings->equipped.insert(watcher).second) continue;
    watcher->SetMassRemovalGuard(m_settings->guard);
    if (m_settings->audit) watcher->SetAudit(*m_settings->audit);
    if (!m_settings->statusHandler) {
      watcher->SetStatusHandler({});
    } else {
      watcher->SetStatusHandler(
          [handler = m_settings->statusHandler](const DataCenterStatus& s) { (*handler)(s); });
    }
  }
  lock.Unlock(m_settings->mtx);
  if (!snapshots) return;
  for (const auto& watcher : watchers) snapshots->Add(watcher, watcher->m_delivery);
}

bool GlobalServiceWatcher::Close(std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + details::WaitLimit(limit);
  m_impl->StopManagedConnections();
  const auto connections = m_impl->Connections();
  const auto onEach = [&connections](const auto& awaitOne) {
    return std::all_of(connections.begin(), connections.end(), awaitOne);
  };
  const auto awaitHandlers = [deadline](const auto& entry) {
    return AwaitPosted(*entry.first, Until(deadline));
  };
  // Handlers hear of the end, and nothing after it.
  const bool closed =
      onEach([deadline](const auto& entry) { return entry.first->AwaitClosed(Until(deadline)); }) &&
      onEach(awaitHandlers);
  Release(true);
  const bool kept = WriteSnapshots(Until(deadline));
  return onEach(awaitHandlers) && closed && kept;
}

}  // namespace zr::halden
