// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <zookeeper/zookeeper.h>

#include <cstdint>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "halden/instance_data.h"
#include "halden/service_id.h"
#include "zr/messaging/halden/service.pb.h"
#include "zrstl/export.h"
#include "zrstl/string.h"

namespace zr::halden::testing {

class WireSession;

/// The bytes of an instance's node. Never compressed.
ZR_EXPORT std::string EncodeInstance(const zr::messaging::halden::ServiceInstanceData& data);
/// What they say; nothing for bytes that do not decode, or are compressed, as publishers do with large data.
ZR_EXPORT std::optional<zr::messaging::halden::ServiceInstanceData> DecodeInstance(const std::string& bytes);

/// What the test needs to know of a node.
struct NodeStat {
  std::int64_t czxid = 0;           ///< the transaction that created it
  std::int64_t ephemeralOwner = 0;  ///< the session that it goes with; 0 for a persistent one
};

/// Whether a node goes with the client's session or stays.
enum class NodeKind : std::uint8_t { Persistent, Ephemeral };
/// Who may use a node: everybody, or who has the credentials of the client that says so.
enum class Access : std::uint8_t { Everybody, Creator };

/// What others do to an ensemble while the program under test looks on: a plain client that waits. Instances that it
/// publishes are nodes and nothing more: no publisher looks after them, they stay as the test has left them, whatever
/// happens to servers and sessions.
///
/// It speaks to the servers directly, without halden and without a client library, and shares nothing with either.
///
/// Threads: any; one operation at a time, others wait. A thread of its own keeps the session alive.
/// Ownership: the destructor ends the session, if a server can be reached, and with it ephemeral nodes.
/// Errors: every operation waits until a server has answered, through lost connections, elections and expired
/// sessions, and throws TestingError after kLimit; ZooError when it is refused (an ACL, a bad name, more than a
/// megabyte). What is confirmed is never overtaken by an earlier try that a server still held. Ephemeral nodes
/// of a session that has expired are gone: see the options of ZooKeeperServer for how long one lives unheard.
class ZR_EXPORT ZooKeeperClient {
 public:
  /// `hosts`: "host:port[,host:port...]". `chroot`: stands before all paths; made with the first node.
  explicit ZooKeeperClient(const std::string& hosts, std::string chroot = {});
  ~ZooKeeperClient();

  ZooKeeperClient(const ZooKeeperClient&) = delete;
  ZooKeeperClient& operator=(const ZooKeeperClient&) = delete;

  /// Creates the instance's node, or replaces what the one that is there holds. `service_name` is filled in where it
  /// is empty.
  void Publish(const zr::String& service, const ServiceId& id,
               zr::messaging::halden::ServiceInstanceData data);
  /// With any bytes, as a broken publisher would; and, where it is ephemeral, as one that can die.
  void PublishRaw(const zr::String& service, const ServiceId& id, const std::string& bytes,
                  NodeKind kind = NodeKind::Persistent);
  /// No effect when it is not there.
  void Unpublish(const zr::String& service, const ServiceId& id);
  /// All instances of a service that are published now, by whomever, and their bytes.
  std::map<ServiceId, std::string> ReadInstances(const zr::String& service);
  static zr::String InstancePath(const zr::String& service, const ServiceId& id);

  /// Creates the node and its absent parents; false when it is there already, and stays as it is.
  bool Create(const std::string& path, const std::string& data = {}, NodeKind kind = NodeKind::Persistent,
              Access access = Access::Everybody);
  void Set(const std::string& path, const std::string& data);
  void SetAccess(const std::string& path, Access access);
  void Delete(const std::string& path);  ///< and all below it, where there is anything

  std::optional<std::string> Get(const std::string& path);
  std::vector<std::string> Children(const std::string& path);  ///< empty for an absent node
  std::optional<NodeStat> Stat(const std::string& path);

  /// For all that follows; one credential at a time. For example "digest", "user:password".
  void Authenticate(const std::string& scheme, const std::string& credential);
  /// The session, which Connection::Start can take up once this client is gone; waits until there is one.
  clientid_t Session();

 private:
  int Run(const char* what, std::int32_t operation, const std::string& path, const std::string& rest,
          std::initializer_list<int> accepted, std::string* answer = nullptr);
  bool CreateAt(const std::string& absolute, const std::string& data, NodeKind kind, Access access);

  const std::string m_chroot;
  const std::unique_ptr<WireSession> m_session;
};

}  // namespace zr::halden::testing
