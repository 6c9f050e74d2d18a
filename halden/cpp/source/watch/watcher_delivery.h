// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "halden/service_watcher.h"
#include "model/instance_table.h"
#include "model/removal_guard.h"
#include "session/connection_core.h"
#include "watch/observer_thread.h"
#include "zrstl/thread_safety.h"

namespace zr::halden::details {

/// Between the reader of a service and those who want to know: holds the instances, answers queries, and
/// tells observers and the error handler.
///
/// Threads: the reader writes on the connection's thread; any thread queries; observers and the error handler
/// are called on the ObserverThread, with no lock held.
/// Ownership: shared by the watcher, the reader and posted deliveries; holds the watcher only weakly, and
/// owns it for the length of one event.
class WatcherDelivery : public std::enable_shared_from_this<WatcherDelivery> {
 public:
  WatcherDelivery(std::shared_ptr<ConnectionCore> core, ZkErrorHandler errorHandler);

  /// Events begin; what was known before is delivered too.
  void Start(std::weak_ptr<ServiceWatcher> watcher);

  /// Ends what another guard holds; null for none.
  void SetGuard(const std::optional<MassRemovalGuard>& guard);
  void SetStatusHandler(DataCenterStatusHandler handler);

  // The reader's.

  InstanceTable::Outcome Put(const ServiceId& id, const NodeVersion& version, std::string payload,
                             bool force);
  InstanceTable::Outcome Quarantine(const ServiceId& id, const NodeVersion& version, bool force);
  void Remove(const ServiceId& id);
  void MarkStale();
  void CountDrift();
  /// How many are known, if everything was read once; else none.
  std::size_t KnownBefore() const;
  /// The newest version that was read of a node; zero where none was.
  NodeVersion Seen(const ServiceId& id) const;
  /// `everythingRead`: after a complete read, rather than a reconnect that needed none.
  void MarkLive(bool everythingRead);
  /// Tells the error handler; a code that waits to be told already is told once.
  void ReportError(int code);
  /// Tells the status handler, if what it was told last is not so any more.
  void ReportStatus();

  // Any thread.

  std::vector<ServiceId> ListInstances() const;
  std::vector<ServiceId> ListHeld() const;
  std::optional<std::string> Find(const ServiceId& id) const;
  ServiceWatcherStatus Status() const;
  bool AwaitSynchronized(std::chrono::milliseconds limit) const;
  bool AwaitDelivered(std::chrono::milliseconds limit) const;

  /// Instances as payloads: who asks parses them, with no lock held.
  struct Known {
    Freshness freshness = Freshness::NeverSynchronized;
    std::vector<InstanceTable::Instance> instances;
  };
  Known Snapshot() const;

 private:
  /// What the status handler is told the changes of.
  using StatusKey = std::tuple<ConnectionState, Freshness, bool>;

  /// What queues are to be told beside changes of instances.
  struct ForQueues {
    bool statusDue = false;           // a state has changed and is to be told
    std::optional<StatusKey> status;  // the one they were told last
    bool liveDue = false;             // Synchronized is to be told, once
                                      // what waited when the data centre became live has been taken:
    std::size_t ahead = 0;            // so many changes still
    bool reconcileDue = false;        // before it, queues drop what is gone: the first complete read
  };

  void Schedule(zr::MutexLock& lock) ZR_RELEASE(m_mtx);
  void ScheduleGuard() ZR_REQUIRES(m_mtx);
  void OnGuardDue(RemovalGuard::TimePoint due);
  void RemoveDue() ZR_REQUIRES(m_mtx);
  void OnNotHeldAnyMore(const ServiceId& id) ZR_REQUIRES(m_mtx);
  void Deliver();
  bool DeliverOne();
  void DeliverErrors(zr::MutexLock& lock) ZR_REQUIRES(m_mtx);
  void DeliverStatus(zr::MutexLock& lock, const ServiceWatcher& watcher,
                     const std::shared_ptr<const DataCenterStatusHandler>& handler) ZR_REQUIRES(m_mtx);
  void StatusChanged() ZR_REQUIRES(m_mtx);
  bool QueuesAreDue() const ZR_REQUIRES(m_mtx);
  void DeliverToQueues(zr::MutexLock& lock, const ServiceWatcher& watcher) ZR_REQUIRES(m_mtx);
  static StatusKey KeyOf(const DataCenterStatus& status);
  static void Tell(ServiceWatcher& watcher, const InstanceTable::Change& change,
                   const ServiceInstanceData& data);
  static void ForEachQueue(const ServiceWatcher& watcher, const std::function<void(EventQueue&)>& tell);

  const std::shared_ptr<ConnectionCore> m_core;
  const std::shared_ptr<ObserverThread> m_thread;
  const ZkErrorHandler m_errorHandler;

  mutable zr::Mutex m_mtx;                   // no foreign code runs with it held
  mutable zr::ConditionVariable m_progress;  // synchronised, or told of what was taken
  std::weak_ptr<ServiceWatcher> m_watcher ZR_GUARDED_BY(m_mtx);
  InstanceTable m_table ZR_GUARDED_BY(m_mtx);
  std::vector<int> m_errors ZR_GUARDED_BY(m_mtx);  // waiting to be told, each code once
  std::optional<RemovalGuard> m_guard ZR_GUARDED_BY(m_mtx);
  std::optional<RemovalGuard::TimePoint> m_guardTimer ZR_GUARDED_BY(m_mtx);  // the earliest that runs
  std::shared_ptr<const DataCenterStatusHandler> m_statusHandler ZR_GUARDED_BY(m_mtx);
  bool m_statusDue ZR_GUARDED_BY(m_mtx) = false;  // the handler is to be asked
  std::optional<StatusKey> m_toldStatus ZR_GUARDED_BY(m_mtx);
  ForQueues m_queues ZR_GUARDED_BY(m_mtx);
  std::uint64_t m_taken ZR_GUARDED_BY(m_mtx) =
      0;                                          // changes taken from the table, and times that all was read
  std::uint64_t m_told ZR_GUARDED_BY(m_mtx) = 0;  // of these, those that observers have heard of
  // A delivery is posted, or running and will look again; or not started.
  bool m_scheduled ZR_GUARDED_BY(m_mtx) = true;
  ServiceWatcherStatus m_status ZR_GUARDED_BY(m_mtx);  // its numbers of instances are the table's
};

}  // namespace zr::halden::details
