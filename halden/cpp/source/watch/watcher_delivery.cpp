// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "watch/watcher_delivery.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "base/log_sources.h"
#include "base/wait_limit.h"
#include "halden/event_queue.h"
#include "model/node_codec.h"

namespace zr::halden::details {

namespace {

// Then the thread's other watchers get their turn.
constexpr int kEventsPerTurn = 64;

/// Runs foreign code: what it throws costs that call only. False then.
template <typename Function>
bool CallGuarded(const char* what, const Function& function) {
  try {
    function();
    return true;
  } catch (const std::exception& e) {
    ZRLOG(ZRLOG_ERROR, WatcherLog()) << what << " threw, error=" << e.what();
  } catch (...) {
    ZRLOG(ZRLOG_ERROR, WatcherLog()) << what << " threw, error="
                                     << "unknown exception";
  }
  return false;
}

}  // namespace

WatcherDelivery::WatcherDelivery(std::shared_ptr<ConnectionCore> core, ZkErrorHandler errorHandler)
    : m_core(std::move(core)),
      m_thread(m_core->Shared<ObserverThread>()),
      m_errorHandler(std::move(errorHandler)) {}

void WatcherDelivery::Start(std::weak_ptr<ServiceWatcher> watcher) {
  zr::MutexLock lock(m_mtx);
  m_watcher = std::move(watcher);
  m_scheduled = false;
  m_queues.statusDue = true;
  Schedule(lock);
}

void WatcherDelivery::SetGuard(const std::optional<MassRemovalGuard>& guard) {
  zr::MutexLock lock(m_mtx);
  if (guard ? m_guard && m_guard->Options() == *guard : !m_guard) return;
  for (const auto& id : m_table.ListHeld()) m_table.Remove(id);
  m_guard.reset();
  if (guard) m_guard.emplace(*guard);
  Schedule(lock);
}

void WatcherDelivery::SetStatusHandler(DataCenterStatusHandler handler) {
  auto changed = handler ? std::make_shared<const DataCenterStatusHandler>(std::move(handler)) : nullptr;
  zr::MutexLock lock(m_mtx);
  m_statusHandler.swap(changed);  // the one before goes after the lock
  m_toldStatus.reset();
  m_statusDue = true;
  Schedule(lock);
}

InstanceTable::Outcome WatcherDelivery::Put(const ServiceId& id, const NodeVersion& version,
                                            std::string payload, bool force) {
  zr::MutexLock lock(m_mtx);
  const bool held = m_table.IsHeld(id);
  const auto outcome = m_table.Put(id, version, std::move(payload), force);
  if (held && !m_table.IsHeld(id)) m_guard->Forget(id);
  Schedule(lock);
  return outcome;
}

InstanceTable::Outcome WatcherDelivery::Quarantine(const ServiceId& id, const NodeVersion& version,
                                                   bool force) {
  zr::MutexLock lock(m_mtx);
  const bool held = m_table.IsHeld(id);
  const auto outcome = m_table.Quarantine(id, version, force);
  if (held && !m_table.IsHeld(id)) m_guard->Forget(id);
  Schedule(lock);
  return outcome;
}

void WatcherDelivery::Remove(const ServiceId& id) {
  zr::MutexLock lock(m_mtx);
  if (m_table.IsHeld(id)) return;  // its end is on its way
  const auto present = m_table.Size() - m_table.Held();
  if (m_guard && m_table.Hold(id)) {
    if (m_guard->Hold(id, Clock::now(), present)) {
      ScheduleGuard();
    } else {
      m_table.Remove(id);
    }
  } else {
    m_table.Remove(id);
  }
  Schedule(lock);
}

void WatcherDelivery::MarkStale() {
  zr::MutexLock lock(m_mtx);
  if (m_status.freshness != Freshness::Live) return;
  m_status.freshness = Freshness::Stale;
  m_status.staleSince = TimeOfDay();
  m_origin.staleRevision = m_table.Revision();
  StatusChanged();
  Schedule(lock);
}

void WatcherDelivery::CountDrift() {
  const zr::MutexLock lock(m_mtx);
  ++m_status.drifts;
}

std::size_t WatcherDelivery::KnownBefore() const {
  const zr::MutexLock lock(m_mtx);
  return IsSynchronized() ? m_table.Size() : 0;
}

NodeVersion WatcherDelivery::Seen(const ServiceId& id) const {
  const zr::MutexLock lock(m_mtx);
  return m_table.Seen(id);
}

void WatcherDelivery::MarkLive(bool everythingRead) {
  zr::MutexLock lock(m_mtx);
  if (everythingRead) ++m_status.resyncs;
  if (m_status.freshness == Freshness::Live) return;
  m_queues.reconcileDue |= !IsSynchronized();
  m_status.freshness = Freshness::Live;
  m_progress.NotifyAll();
  StatusChanged();
  RemoveDue();
  m_queues.liveDue = true;
  m_queues.ahead = m_table.Changes();
  Schedule(lock);
}

void WatcherDelivery::ReportStatus() {
  zr::MutexLock lock(m_mtx);
  StatusChanged();
  Schedule(lock);
}

void WatcherDelivery::ReportError(int code) {
  zr::MutexLock lock(m_mtx);
  m_status.lastError = code;
  if (!m_errorHandler || std::find(m_errors.begin(), m_errors.end(), code) != m_errors.end()) return;
  m_errors.push_back(code);
  Schedule(lock);
}

std::vector<ServiceId> WatcherDelivery::ListInstances() const {
  const zr::MutexLock lock(m_mtx);
  return m_table.List();
}

std::vector<ServiceId> WatcherDelivery::ListHeld() const {
  const zr::MutexLock lock(m_mtx);
  return m_table.ListHeld();
}

std::optional<std::string> WatcherDelivery::Find(const ServiceId& id) const {
  const zr::MutexLock lock(m_mtx);
  return m_table.Find(id);
}

ServiceWatcherStatus WatcherDelivery::Status() const {
  const zr::MutexLock lock(m_mtx);
  ServiceWatcherStatus status = m_status;
  if (status.freshness != Freshness::Stale) status.staleSince.reset();
  if (status.freshness != Freshness::Restored) status.restoredAsOf.reset();
  status.instances = m_table.Size();
  status.held = m_table.Held();
  status.quarantined = m_table.Quarantined();
  return status;
}

bool WatcherDelivery::AwaitSynchronized(std::chrono::milliseconds limit) const {
  const zr::MutexLock lock(m_mtx);
  return m_progress.WaitFor(m_mtx, WaitLimit(limit),
                            [this]() ZR_REQUIRES(m_mtx) { return IsSynchronized(); });
}

/// Changes leave the table in their order: so those that wait have all been told when as many have.
bool WatcherDelivery::AwaitDelivered(std::chrono::milliseconds limit) const {
  const auto deadline = std::chrono::steady_clock::now() + WaitLimit(limit);
  zr::MutexLock lock(m_mtx);
  const auto synchronized = [this]() ZR_REQUIRES(m_mtx) { return IsSynchronized(); };
  if (!m_progress.WaitUntil(m_mtx, deadline, synchronized)) return false;
  const std::uint64_t all = m_taken + m_table.Changes() + (m_queues.liveDue ? 1 : 0);
  const auto told = [&]() ZR_REQUIRES(m_mtx) { return m_told >= all && !m_queues.liveDue; };
  return m_progress.WaitUntil(m_mtx, deadline, told);
}

WatcherDelivery::Known WatcherDelivery::Snapshot() const {
  const zr::MutexLock lock(m_mtx);
  return {m_status.freshness, m_table.Copy()};
}

/// Releases `lock`, which is on m_mtx, and posts a delivery if there is something to tell and none is on its way.
void WatcherDelivery::Schedule(zr::MutexLock& lock) {
  // Whether any are held is part of the state that is told.
  const bool heldBefore = std::exchange(m_status.held, m_table.Held()) != 0;
  if (heldBefore != (m_table.Held() != 0)) StatusChanged();
  const bool handlersDue = !m_errors.empty() || (m_statusDue && m_statusHandler);
  const bool due = !m_scheduled && (m_table.HasChanges() || handlersDue || QueuesAreDue());
  m_scheduled |= due;
  const bool manyToCome = m_status.freshness != Freshness::Live;
  lock.Unlock(m_mtx);
  if (!due) return;
  const auto deliver = [self = shared_from_this()] { self->Deliver(); };
  try {
    if (manyToCome) {
      m_thread->PostGathered(deliver);
    } else {  // when all that has arrived is read: the thread is then woken once for all of it
      m_core->Post([thread = m_thread, deliver] { thread->Post(deliver); });
    }
  } catch (...) {
    const zr::MutexLock again(m_mtx);
    m_scheduled = false;  // else nothing would ever be delivered again
    throw;
  }
}

void WatcherDelivery::StatusChanged() {
  m_statusDue = m_queues.statusDue = true;
}

bool WatcherDelivery::QueuesAreDue() const {
  return m_queues.liveDue ? m_queues.ahead == 0 : m_queues.statusDue;
}

void WatcherDelivery::ScheduleGuard() {
  const auto due = m_guard->NextDue();
  if (!due || (m_guardTimer && *m_guardTimer <= *due)) return;
  m_thread->PostAfter(*due - Clock::now(), [weak = weak_from_this(), due = *due] {
    if (const auto self = weak.lock()) self->OnGuardDue(due);
  });
  m_guardTimer = due;
}

void WatcherDelivery::OnGuardDue(RemovalGuard::TimePoint due) {
  zr::MutexLock lock(m_mtx);
  if (m_guardTimer == due) m_guardTimer.reset();
  if (m_status.freshness != Freshness::Live)
    return;  // nobody can be seen to come back: MarkLive removes what is due
  RemoveDue();
  Schedule(lock);
}

void WatcherDelivery::RemoveDue() {
  if (!m_guard) return;
  for (const auto& id : m_guard->Due(Clock::now())) {
    if (m_table.IsHeld(id)) m_table.Remove(id);
  }
  ScheduleGuard();
}

void WatcherDelivery::Deliver() {
  constexpr std::chrono::milliseconds afterFailure{100};
  const auto again = [self = shared_from_this()] { self->Deliver(); };
  try {
    for (int i = 0; i < kEventsPerTurn; ++i) {
      if (!DeliverOne()) return;
    }
    m_thread->Post(again);
  } catch (...) {  // no memory, say: what was not told is told later
    m_thread->PostAfter(afterFailure, again);
    throw;
  }
}

/// One instance's change, after all errors and states that wait; false when nothing is left, or nobody.
bool WatcherDelivery::DeliverOne() {
  // Both may end here, with foreign code in what they own: after the lock.
  std::shared_ptr<ServiceWatcher> watcher;
  std::shared_ptr<const DataCenterStatusHandler> handler;
  zr::MutexLock lock(m_mtx);
  // Owned for one event only: who drops the last owner hears at most the event that is running.
  watcher = m_watcher.lock();
  if (!watcher) return false;
  DeliverErrors(lock);
  handler = m_statusHandler;
  DeliverStatus(lock, *watcher, handler);
  if (QueuesAreDue()) DeliverToQueues(lock, *watcher);
  if (std::exchange(m_told, m_taken) != m_taken) m_progress.NotifyAll();
  if (!m_table.HasChanges()) {
    const bool handlersDue = !m_errors.empty() || (m_statusDue && m_statusHandler);
    if (handlersDue || QueuesAreDue()) return true;  // come while others were told
    m_scheduled = false;
    return false;
  }
  const auto change = m_table.Take();
  ++m_taken;
  if (m_queues.ahead != 0) --m_queues.ahead;
  lock.Unlock(m_mtx);
  ServiceInstanceData data;
  try {
    if (!change.payload.empty()) data = ParsePayload(change.payload);
  } catch (...) {
    const zr::MutexLock again(m_mtx);
    m_table.TakeBack(change);
    --m_taken;
    m_queues.ahead = m_table.Changes();
    throw;
  }
  Tell(*watcher, change, data);
  return true;
}

void WatcherDelivery::DeliverErrors(zr::MutexLock& lock) {
  const auto errors = std::exchange(m_errors, {});
  if (errors.empty()) return;
  lock.Unlock(m_mtx);
  for (const int code : errors) {
    CallGuarded("error handler", [&] { m_errorHandler(code); });
  }
  lock.Lock(m_mtx);
}

void WatcherDelivery::DeliverStatus(zr::MutexLock& lock, const ServiceWatcher& watcher,
                                    const std::shared_ptr<const DataCenterStatusHandler>& handler) {
  if (!handler || !std::exchange(m_statusDue, false)) return;
  lock.Unlock(m_mtx);
  const DataCenterStatus status = watcher.DataCenter();
  const StatusKey key = KeyOf(status);
  lock.Lock(m_mtx);
  if (m_toldStatus == key || handler != m_statusHandler) return;
  m_toldStatus = key;
  lock.Unlock(m_mtx);
  CallGuarded("status handler", [&] { (*handler)(status); });
  lock.Lock(m_mtx);
}

WatcherDelivery::StatusKey WatcherDelivery::KeyOf(const DataCenterStatus& status) {
  return {status.connection.state, status.watcher.freshness, status.watcher.held != 0};
}

/// Tells queues the state in its place among the instances: Synchronized comes behind all that was read, and until then
/// no State is told, which would say too early that the data centre is live.
void WatcherDelivery::DeliverToQueues(zr::MutexLock& lock, const ServiceWatcher& watcher) {
  const bool live = m_queues.liveDue;
  m_queues.statusDue = false;
  lock.Unlock(m_mtx);
  const DataCenterStatus status = watcher.DataCenter();
  lock.Lock(m_mtx);
  if (live ? m_queues.ahead != 0 : m_queues.liveDue || m_queues.status == KeyOf(status)) return;
  const bool first = live && std::exchange(m_queues.reconcileDue, false);
  if (live) {
    m_queues.liveDue = false;
    ++m_taken;
  }
  m_queues.status = KeyOf(status);
  lock.Unlock(m_mtx);
  const auto kind = live ? ServiceEvent::Kind::Synchronized : ServiceEvent::Kind::State;
  ForEachQueue(watcher, [&](EventQueue& queue) {
    if (first) queue.Reconcile(watcher);
    queue.Tell(watcher, kind, status);
  });
  lock.Lock(m_mtx);
}

void WatcherDelivery::Tell(ServiceWatcher& watcher, const InstanceTable::Change& change,
                           const ServiceInstanceData& data) {
  for (const InstanceChange kind : change.kinds) {
    const auto tell = [&](ServiceWatcherObserver& observer) {
      switch (kind) {
        case InstanceChange::Removed:
          return observer.OnInstanceRemoved(watcher, change.id);
        case InstanceChange::Added:
          return observer.OnInstanceAdded(watcher, change.id, data);
        case InstanceChange::Modified:
          return observer.OnInstanceModified(watcher, change.id, data);
      }
    };
    // One that throws cuts the event short for those behind it. A queue among them could never make up for that.
    if (!CallGuarded("observer", [&] { watcher.NotifyObservers(tell); })) ForEachQueue(watcher, tell);
  }
}

/// Those among the watcher's observers, and among the observers of these that relay to their own.
void WatcherDelivery::ForEachQueue(const ServiceWatcher& watcher,
                                   const std::function<void(EventQueue&)>& tell) {
  using Registry = zr::ObservableImpl<ServiceWatcherObserver>;
  using Visit = std::function<void(ServiceWatcherObserver&)>;
  // Notified as of an event, so that an unregistration waits for this pass. The function is protected: named through
  // the watcher, whose friend this is, it can be called on any registry.
  void (Registry::*const pass)(const Visit&) const = &ServiceWatcher::NotifyObservers<const Visit&>;
  const Visit visit = [&](ServiceWatcherObserver& observer) {
    if (auto* const queue = dynamic_cast<EventQueue*>(&observer)) {
      CallGuarded("event queue", [&] { tell(*queue); });
    } else if (const auto* const relay = dynamic_cast<const Registry*>(&observer)) {
      (relay->*pass)(visit);
    }
  };
  (watcher.*pass)(visit);
}

}  // namespace zr::halden::details
