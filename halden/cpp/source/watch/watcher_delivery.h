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
  /// The service's node was read: the transaction that created it, 0 where there is none. It tells ensembles apart.
  void SetServiceNode(std::int64_t czxid);
  /// It was deleted: whose instances will be known until it is read again is not known.
  void ForgetServiceNode();
  /// Everything was read. What was restored and is in no list is gone, which these lists are the evidence of.
  void DropUnlisted(const std::function<bool(const ServiceId&)>& isListed);
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

  // For snapshot files (delivery_snapshot.cpp). Any thread.

  /// What a snapshot says of the service as a whole. Its instances are kept apart, since they are many.
  struct Snapshotted {
    std::int64_t serviceCzxid = 0;
    std::chrono::system_clock::time_point asOf;  ///< when the list was true
  };
  /// What an earlier process knew: its instances become known, and stay until evidence says otherwise. False, and
  /// nothing done, once everything was read, or the service's node, and that was another one.
  bool Restore(const Snapshotted& service, std::vector<KeptInstance> instances);
  /// Null as long as not everything was read once, and while what was live is being read anew: what is known is then of
  /// two times, perhaps of two ensembles.
  struct Keepable {
    Snapshotted service;
    std::uint64_t revision = 0;  ///< another one: something has changed
  };
  std::optional<Keepable> ToKeep() const;
  /// All that is known, some at a time, so that the lock is never held for long. Those that come meanwhile may be missing.
  std::vector<KeptInstance> CopyInstances() const;
  void CountSnapshotError();

 private:
  /// What tells a snapshot's ensemble from the one that is read.
  struct Origin {
    std::optional<std::int64_t> read;      // czxid of the service's node, as read last
    std::optional<std::int64_t> restored;  // ... of the snapshot; none once compared
    std::uint64_t staleRevision = 0;       // of the table when it was live last
    bool compared = false;  // with the lists: what is restored later would stay, whatever they say
  };

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
  void Deliver();
  bool DeliverOne();
  void DeliverErrors(zr::MutexLock& lock) ZR_REQUIRES(m_mtx);
  void DeliverStatus(zr::MutexLock& lock, const ServiceWatcher& watcher,
                     const std::shared_ptr<const DataCenterStatusHandler>& handler) ZR_REQUIRES(m_mtx);
  void StatusChanged() ZR_REQUIRES(m_mtx);
  bool QueuesAreDue() const ZR_REQUIRES(m_mtx);
  /// Everything was read once.
  bool IsSynchronized() const ZR_REQUIRES(m_mtx) {
    return m_status.freshness == Freshness::Live || m_status.freshness == Freshness::Stale;
  }
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
  Origin m_origin ZR_GUARDED_BY(m_mtx);
};

}  // namespace zr::halden::details
