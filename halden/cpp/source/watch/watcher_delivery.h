// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "halden/service_watcher.h"
#include "instance_table.h"
#include "removal_guard.h"
#include "session/connection_core.h"
#include "watch/observer_thread.h"

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

  void Schedule(std::unique_lock<std::mutex>& lock);
  void ScheduleGuard();
  void OnGuardDue(RemovalGuard::TimePoint due);
  void RemoveDue();
  void OnNotHeldAnyMore(const ServiceId& id);
  void Deliver();
  bool DeliverOne();
  void DeliverErrors(std::unique_lock<std::mutex>& lock);
  void DeliverStatus(std::unique_lock<std::mutex>& lock, const ServiceWatcher& watcher,
                     const std::shared_ptr<const DataCenterStatusHandler>& handler);
  void StatusChanged();
  bool QueuesAreDue() const;
  void DeliverToQueues(std::unique_lock<std::mutex>& lock, const ServiceWatcher& watcher);
  static StatusKey KeyOf(const DataCenterStatus& status);
  static void Tell(ServiceWatcher& watcher, const InstanceTable::Change& change,
                   const ServiceInstanceData& data);
  static void ForEachQueue(const ServiceWatcher& watcher, const std::function<void(EventQueue&)>& tell);

  const std::shared_ptr<ConnectionCore> m_core;
  const std::shared_ptr<ObserverThread> m_thread;
  const ZkErrorHandler m_errorHandler;

  mutable std::mutex m_mtx;                    // guards all below; no foreign code runs with it held
  mutable std::condition_variable m_progress;  // synchronised, or told of what was taken
  std::weak_ptr<ServiceWatcher> m_watcher;
  InstanceTable m_table;
  std::vector<int> m_errors;  // waiting to be told, each code once
  std::optional<RemovalGuard> m_guard;
  std::optional<RemovalGuard::TimePoint> m_guardTimer;  // the earliest that runs
  std::shared_ptr<const DataCenterStatusHandler> m_statusHandler;
  bool m_statusDue = false;  // the handler is to be asked
  std::optional<StatusKey> m_toldStatus;
  bool m_queueStatusDue = false;           // queues are to be told the state
  std::optional<StatusKey> m_queueStatus;  // what they were told last
  bool m_liveDue = false;         // all is read, and queues are to be told so, behind what waited then:
  std::size_t m_ahead = 0;        // so many changes
  bool m_reconcileDue = false;    // and that it was for the first time
  std::uint64_t m_taken = 0;      // changes taken from the table, and times that all was read
  std::uint64_t m_told = 0;       // of these, those that observers have heard of
  bool m_scheduled = true;        // a delivery is posted, or running and will look again; or not started
  ServiceWatcherStatus m_status;  // its numbers of instances are the table's
};

}  // namespace zr::halden::details
