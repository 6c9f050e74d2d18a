// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "watcher_delivery.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "log_sources.h"

namespace zr::halden::details {

namespace {

// Then the thread's other watchers get their turn.
constexpr int kEventsPerTurn = 64;

/// Runs foreign code: what it throws costs that call only.
template <typename Function>
void CallGuarded(const char* what, const Function& function) {
  try {
    function();
  } catch (const std::exception& e) {
    ZRLOG(ZRLOG_ERROR, WatcherLog()) << what << " threw, error=" << e.what();
  } catch (...) {
    ZRLOG(ZRLOG_ERROR, WatcherLog()) << what << " threw, error="
                                     << "unknown exception";
  }
}

}  // namespace

WatcherDelivery::WatcherDelivery(std::shared_ptr<ConnectionCore> core, ZkErrorHandler errorHandler)
    : m_core(std::move(core)), m_errorHandler(std::move(errorHandler)) {}

void WatcherDelivery::Start(std::weak_ptr<ServiceWatcher> watcher) {
  std::unique_lock lock(m_mtx);
  m_watcher = std::move(watcher);
  m_started = true;
  Schedule(lock);
}

InstanceTable::Outcome WatcherDelivery::Put(const ServiceId& id, const NodeVersion& version,
                                            InstanceDataPtr data, bool force) {
  std::unique_lock lock(m_mtx);
  const auto outcome = m_table.Put(id, version, std::move(data), force);
  Schedule(lock);
  return outcome;
}

InstanceTable::Outcome WatcherDelivery::Quarantine(const ServiceId& id, const NodeVersion& version,
                                                   bool force) {
  std::unique_lock lock(m_mtx);
  const auto outcome = m_table.Quarantine(id, version, force);
  Schedule(lock);
  return outcome;
}

void WatcherDelivery::Remove(const ServiceId& id) {
  std::unique_lock lock(m_mtx);
  m_table.Remove(id);
  Schedule(lock);
}

void WatcherDelivery::MarkStale() {
  const std::lock_guard lock(m_mtx);
  if (m_freshness != Freshness::Live) return;
  m_freshness = Freshness::Stale;
  m_staleSince = std::chrono::system_clock::now();
}

void WatcherDelivery::MarkLive(bool everythingRead) {
  const std::lock_guard lock(m_mtx);
  m_freshness = Freshness::Live;
  if (everythingRead) ++m_resyncs;
  m_synchronized.notify_all();
}

void WatcherDelivery::ReportError(int code) {
  std::unique_lock lock(m_mtx);
  m_lastError = code;
  if (!m_errorHandler || std::find(m_errors.begin(), m_errors.end(), code) != m_errors.end()) return;
  m_errors.push_back(code);
  Schedule(lock);
}

std::vector<ServiceId> WatcherDelivery::ListInstances() const {
  const std::lock_guard lock(m_mtx);
  return m_table.List();
}

InstanceDataPtr WatcherDelivery::Find(const ServiceId& id) const {
  const std::lock_guard lock(m_mtx);
  return m_table.Find(id);
}

ServiceWatcherStatus WatcherDelivery::Status() const {
  const std::lock_guard lock(m_mtx);
  ServiceWatcherStatus status;
  status.freshness = m_freshness;
  if (m_freshness == Freshness::Stale) status.staleSince = m_staleSince;
  status.instances = m_table.Size();
  status.quarantined = m_table.Quarantined();
  status.resyncs = m_resyncs;
  status.lastError = m_lastError;
  return status;
}

bool WatcherDelivery::AwaitSynchronized(std::chrono::milliseconds limit) const {
  std::unique_lock lock(m_mtx);
  return m_synchronized.wait_for(lock, limit, [this] { return m_freshness != Freshness::NeverSynchronized; });
}

/// Posts a delivery if there is something to tell and none is on its way. `lock` is on m_mtx and may be
/// released.
void WatcherDelivery::Schedule(std::unique_lock<std::mutex>& lock) {
  if (m_scheduled || !m_started || (!m_table.HasChanges() && m_errors.empty())) return;
  m_scheduled = true;
  lock.unlock();
  m_core->Deliver([self = shared_from_this()] { self->Deliver(); });
}

void WatcherDelivery::Deliver() {
  for (int i = 0; i < kEventsPerTurn; ++i) {
    if (!DeliverOne()) return;
  }
  m_core->Deliver([self = shared_from_this()] { self->Deliver(); });
}

/// One instance's change, after all errors that wait; false when nothing is left, or nobody.
bool WatcherDelivery::DeliverOne() {
  std::unique_lock lock(m_mtx);
  // Owned for one event only: who drops the last owner hears at most the event that is running.
  const auto watcher = m_watcher.lock();
  if (!watcher) return false;
  DeliverErrors(lock);
  if (!m_table.HasChanges()) {
    if (!m_errors.empty()) return true;  // come while the handler ran
    m_scheduled = false;
    lock.unlock();  // before the watcher, which may go here, takes this object with it
    return false;
  }
  const auto change = m_table.Take();
  lock.unlock();
  Tell(*watcher, change);
  return true;
}

void WatcherDelivery::DeliverErrors(std::unique_lock<std::mutex>& lock) {
  const auto errors = std::exchange(m_errors, {});
  if (errors.empty()) return;
  lock.unlock();
  for (const int code : errors) {
    CallGuarded("error handler", [&] { m_errorHandler(code); });
  }
  lock.lock();
}

void WatcherDelivery::Tell(ServiceWatcher& watcher, const InstanceTable::Change& change) {
  using Observer = ServiceWatcherObserver;
  for (const ChangeKind kind : change.kinds) {
    CallGuarded("observer", [&] {
      switch (kind) {
        case ChangeKind::Removed:
          return watcher.NotifyObservers(&Observer::OnInstanceRemoved, watcher, change.id);
        case ChangeKind::Added:
          return watcher.NotifyObservers(&Observer::OnInstanceAdded, watcher, change.id, *change.data);
        case ChangeKind::Modified:
          return watcher.NotifyObservers(&Observer::OnInstanceModified, watcher, change.id, *change.data);
      }
    });
  }
}

}  // namespace zr::halden::details
