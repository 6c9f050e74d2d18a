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
#include "zrstl/observable_impl.h"
#include "zrstl/string.h"

namespace zr::halden {

using ServiceInstanceData = zr::messaging::halden::ServiceInstanceData;

/// Takes a ZooKeeper error code. Runs on the thread that delivers the watcher's events; codes that wait to be
/// told are told once each.
using ZkErrorHandler = std::function<void(int)>;

class ServiceWatcher;

namespace details {
class ServiceReader;
class WatcherDelivery;
}  // namespace details

/// What an application implements to follow instances. `watcher` is the data centre's own watcher
/// (`DataCenterName` tells which); the arguments are valid for the call only.
class ServiceWatcherObserver {
 public:
  virtual ~ServiceWatcherObserver() = default;
  virtual void OnInstanceAdded(ServiceWatcher& watcher, const ServiceId& instance,
                               const ServiceInstanceData& data) = 0;
  virtual void OnInstanceRemoved(ServiceWatcher& watcher, const ServiceId& instance) = 0;
  virtual void OnInstanceModified(ServiceWatcher& watcher, const ServiceId& instance,
                                  const ServiceInstanceData& data) = 0;
};

/// How far what a watcher knows can be trusted.
///
///   NeverSynchronized -> Live     the first complete read
///   Live              -> Stale    connection lost, session lost, connection stopped
///   Stale             -> Live     everything read or confirmed again
enum class Freshness : std::uint8_t { NeverSynchronized, Live, Stale };

/// In lower case, for output: "never synchronised", "live", "stale".
std::string_view ToString(Freshness freshness);

struct ServiceWatcherStatus {
  Freshness freshness = Freshness::NeverSynchronized;
  std::optional<std::chrono::system_clock::time_point> staleSince;  ///< set while Stale
  std::size_t instances = 0;                                        ///< known now
  std::size_t quarantined = 0;                                      ///< nodes whose payload does not decode
  std::uint64_t resyncs = 0;  ///< complete reads of everything, the first one included
  int lastError = 0;          ///< last ZooKeeper error told to the error handler; 0 for none
};

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
/// Errors: an observer that throws loses that event for the observers after it; it is logged to
/// "halden.service_watcher" and nothing else is lost.
class ServiceWatcher : public std::enable_shared_from_this<ServiceWatcher>,
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

  std::vector<ServiceId> ListInstances() const;

  /// True, with `data` filled, when the instance is known; else false, with `data` untouched.
  bool GetInstanceData(const ServiceId& id, ServiceInstanceData& data) const;

  const zr::String& ServiceName() const;
  const zr::String& DataCenterName() const;
  ServiceWatcherStatus Status() const;

  /// Waits until the first complete read is done: true then, false at the deadline. Queries are complete from
  /// then on; observers may still be being told. Do not call it from a callback.
  bool AwaitSynchronized(std::chrono::milliseconds limit) const;

 private:
  friend class details::WatcherDelivery;

  const zr::String m_serviceName;
  const std::shared_ptr<Connection> m_conn;
  const std::shared_ptr<details::WatcherDelivery> m_delivery;
  const std::shared_ptr<details::ServiceReader> m_reader;
  std::atomic<bool> m_started{false};
};

/// A service name is 1 to 255 bytes of valid UTF-8 without "/" and control characters, not "." or "..", and
/// without the code points that ZooKeeper refuses in paths (U+D800 to U+F8FF, U+FFF0 and above).
bool IsValidServiceName(const zr::String& name);

}  // namespace zr::halden
