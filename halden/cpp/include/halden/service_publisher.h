// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string_view>

#include "halden/connection_v2.h"
#include "halden/service_id.h"
#include "halden/service_watcher.h"
#include "zrstl/export.h"
#include "zrstl/string.h"

namespace zr::halden {

namespace details {
class PublisherCore;
}

/// What has become of an instance's node.
///
///   Absent     -> Publishing                Publish
///   Publishing -> Published | Absent        written; Remove
///   Published  -> Publishing | Absent       new data, session lost, node deleted by others; Remove
///   Publishing -> Conflict                  another publisher of the same id is alive
///   Conflict   -> Publishing | Absent       its node is gone; Remove
enum class PublishState : std::uint8_t { Absent, Publishing, Published, Conflict };

ZR_EXPORT std::string_view ToString(PublishState state);
ZR_EXPORT std::ostream& operator<<(std::ostream& out, PublishState state);

struct PublisherStatus {
  PublishState state = PublishState::Absent;  ///< what ZooKeeper last confirmed
  int lastError = 0;                          ///< of the last try that failed; 0 after a success
  std::uint64_t published = 0;                ///< times that the node was created
  zr::String rival;                           ///< while Conflict: who publishes the instance, for people
  std::uint64_t undone = 0;                   ///< times that others changed, deleted or replaced the node
  /// Nodes of other publishers that were replaced: what dead processes left, and what rivals wrote that live.
  std::uint64_t replaced = 0;
  zr::String replacedWriter;  ///< who wrote the last of them, for people
};

/// Publishes one instance through one connection and keeps it true: the node is written again in every new
/// session, replaced when an earlier session of the same instance left it behind, and created again when
/// others delete it.
/// Two publishers of one id: the one that comes second replaces the node of the first, which may be one that a
/// dead process left; when the first takes it back the second yields, is in `Conflict`, logs an error with
/// what is known of its rival, and publishes as soon as the rival's node is gone. First is who has published
/// in a connected session; who had to reconnect comes second. Of two that have both been first one yields, too.
/// What is replaced is first written once more as it is, so that nothing but that is deleted.
///
/// Threads: every operation may be called from any thread, and returns without waiting; only the `Await...`
/// ones wait, with a limit (not from a callback). What is asked while disconnected is done on reconnect; only
/// the latest wish counts.
/// Ownership: shares ownership of its connection. The destructor removes the node in the background if the
/// session lives; a program that ends calls `Remove` and `AwaitAbsent` first, or stops the connection and
/// awaits its close.
/// Access: by default everybody may do everything with what is published. `acl` "creator" lets everybody read it and
/// only who has the connection's credential write, replace and delete it; else it is a list in ZooKeeper's text form,
/// "scheme:id:permissions[,...]" ("world:anyone:r,auth::cdrwa" says the same as "creator"). Empty: as the option `acl` of
/// the connection's connect string says. The nodes above (the service, its partition) are created with the same list,
/// and everybody may read and create there, so that others can publish the service too; those that are there already
/// stay as they are. ZooKeeper leaves it to the node above who may delete: so of those who publish one service with
/// different credentials, one may be unable to take its instance back, which then goes with its session.
/// Errors: the constructor throws std::invalid_argument (null connection, bad service name, bad `acl`); `Publish` throws
/// ZooError(ZBADARGUMENTS) and says why for data that is not fit to be published (see WhyUnfit: no host or
/// none that can be connected to, another service's name, ports that are none or have the same name), that
/// does not fit into a node, or that no reader would accept; what was published before stays. Failed writes
/// are logged to "halden.publisher", kept in `Status`, and tried again with back-off.
class ZR_EXPORT ServicePublisher {
 public:
  ServicePublisher(std::shared_ptr<Connection> conn, const zr::String& serviceName, const ServiceId& id,
                   const zr::String& acl = {});
  ~ServicePublisher();

  ServicePublisher(const ServicePublisher&) = delete;
  ServicePublisher& operator=(const ServicePublisher&) = delete;
  /// What was moved from can be destroyed and assigned to, and nothing else.
  ServicePublisher(ServicePublisher&&) noexcept = default;
  ServicePublisher& operator=(ServicePublisher&& other) noexcept;

  /// Publishes `data`, or replaces what is published. `service_name` is filled in where it is empty, and
  /// `start_time_ms`, with the time of this publisher's construction, where it is 0.
  void Publish(ServiceInstanceData data);

  /// Takes the instance back; `Publish` may follow.
  void Remove();

  const ServiceId& Id() const;
  PublisherStatus Status() const;

  /// Waits until the last `Publish` (`Remove`) is confirmed: true then, false at the deadline. AwaitPublished
  /// is false at once in `Conflict`; a conflict may become known only after a publication was confirmed.
  bool AwaitPublished(std::chrono::milliseconds limit) const;
  bool AwaitAbsent(std::chrono::milliseconds limit) const;

 private:
  zr::String m_serviceName;
  std::int64_t m_startTimeMs;
  std::shared_ptr<Connection> m_conn;
  std::shared_ptr<details::PublisherCore> m_core;  // null once moved from
};

}  // namespace zr::halden
