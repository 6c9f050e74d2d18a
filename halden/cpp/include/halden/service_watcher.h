// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "halden/connection_v2.h"
#include "halden/service_id.h"
#include "zr/messaging/halden/service.pb.h"
#include "zrstl/export.h"
#include "zrstl/observable_impl.h"
#include "zrstl/string.h"

namespace zr::halden {

using ServiceInstanceData = zr::messaging::halden::ServiceInstanceData;

/// Takes a ZooKeeper error code. Runs on the thread that delivers the watcher's events; codes that wait to be
/// told are told once each.
using ZkErrorHandler = std::function<void(int)>;

class EventQueue;
class GlobalServiceWatcher;
class ServiceWatcher;

namespace details {
class ServiceReader;
class WatcherDelivery;
}  // namespace details

/// What an application implements to follow instances. `watcher` is the data centre's own watcher
/// (`DataCenterName` tells which); the arguments are valid for the call only.
class ZR_EXPORT ServiceWatcherObserver {
 public:
  virtual ~ServiceWatcherObserver() = default;
  virtual void OnInstanceAdded(ServiceWatcher& watcher, const ServiceId& instance,
                               const ServiceInstanceData& data) = 0;
  virtual void OnInstanceRemoved(ServiceWatcher& watcher, const ServiceId& instance) = 0;
  virtual void OnInstanceModified(ServiceWatcher& watcher, const ServiceId& instance,
                                  const ServiceInstanceData& data) = 0;
};

/// How far what a watcher knows can be trusted. Live means: connected, every list of instances is known, and so
/// is each instance in them, but for single ones that may not be read (the error handler hears of these) or do
/// not decode (`quarantined`).
///
///   NeverSynchronized -> Live     the first complete read
///   Live              -> Stale    connection lost, session lost, connection stopped; a list could not be read
///                                 anew, may not be read any more for example, or an instance for a reason that
///                                 will pass
///   Stale             -> Live     everything read or confirmed again
enum class Freshness : std::uint8_t { NeverSynchronized, Live, Stale };

/// In lower case, for output: "never synchronised", "live", "stale".
ZR_EXPORT std::string_view ToString(Freshness freshness);

struct ServiceWatcherStatus {
  Freshness freshness = Freshness::NeverSynchronized;
  std::optional<std::chrono::system_clock::time_point> staleSince;  ///< set while Stale
  std::size_t instances = 0;                                        ///< known now
  std::size_t held = 0;  ///< of them, those whose removal the guard holds back, or has not decided on yet
  std::size_t quarantined = 0;  ///< nodes whose payload does not decode
  std::uint64_t resyncs = 0;    ///< complete reads of everything, the first one included
  std::uint64_t drifts = 0;     ///< changes whose event was lost, found by the audit (see AuditIntervals)
  int lastError = 0;            ///< last ZooKeeper error told to the error handler; 0 for none
};

/// What is worth a graph, as numbers. The first five only grow.
struct DataCenterCounters {
  std::uint64_t sessions = 0;    ///< sessions established
  std::uint64_t reconnects = 0;  ///< times that a session went on after a lost connection
  std::uint64_t expiries = 0;    ///< sessions lost to expiry, forced ones included
  std::uint64_t resyncs = 0;     ///< complete reads of everything, the first one included
  std::uint64_t drifts = 0;      ///< changes whose event was lost, found by the audit
  std::size_t instances = 0;     ///< known now, those held included
  std::size_t held = 0;
  std::size_t quarantined = 0;
};

/// One data centre as its connection and watcher see it.
struct ZR_EXPORT DataCenterStatus {
  zr::String name;
  ConnectionStatus connection;
  ServiceWatcherStatus watcher;

  DataCenterCounters Counters() const;
};

/// Is told when a data centre's state has changed: its connection's, its freshness, or whether removals are
/// held; and once what they are when it is set. States that passed meanwhile are skipped: what it is given is
/// the newest. Runs on the thread that delivers the watcher's events; what it throws is logged.
using DataCenterStatusHandler = std::function<void(const DataCenterStatus&)>;

/// Guards against the outage that looks like everybody leaving: publishers that lose their sessions together
/// come back together. When more than `share` of a data centre's instances, and at least `least`, disappear
/// within a second, their removals are held: who is back before `gracePeriod` is over is announced as
/// modified, or not at all when its data is the same; the others are removed then. While the connection is
/// down nobody can be seen to come back, so nothing held is removed before the data centre is live again.
///
/// Other removals wait until it is clear that they are no mass: a quarter of a second without another one,
/// one second at the most. Two kinds do not wait: one that no other preceded within a second, where there are
/// ten instances or more, since a tenth can be spared; and all where there are fewer instances than `least`.
struct MassRemovalGuard {
  double share = 0.5;                            ///< at least 0, less than 1
  std::chrono::milliseconds gracePeriod{30000};  ///< more than 0; a century and more is for ever
  /// At least 1. So few, and more than the share, are a mass: two can leave together by chance. 1 also guards
  /// a service of one instance, whose every end is then told that much later.
  std::size_t least = 3;

  bool operator==(const MassRemovalGuard&) const = default;
};

/// An event can be lost: by a bug or a proxy, and a server does not tell one to a client that may not read the
/// node just then. So while nothing else is read a watcher goes over what it knows, evenly spread: over every
/// list of instances and over every instance once in its interval; zero: never. What it finds changed is
/// announced as any change, counted (`drifts`) and logged. The cost, for the servers: an answer of some hundred
/// bytes for each instance, and each partition's list of names.
struct AuditIntervals {
  std::chrono::milliseconds lists{std::chrono::minutes(5)};
  std::chrono::milliseconds instances{std::chrono::hours(1)};
};

/// Throws std::invalid_argument for values that are out of range.
ZR_EXPORT void Check(const std::optional<MassRemovalGuard>& guard);

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

/// A service name is 1 to 255 bytes of valid UTF-8 without "/" and control characters, not "." or "..", and
/// without the code points that ZooKeeper refuses in paths (U+D800 to U+F8FF, U+FFF0 and above).
ZR_EXPORT bool IsValidServiceName(const zr::String& name);

}  // namespace zr::halden
