// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <zookeeper/zookeeper.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "halden/service_id.h"
#include "halden/testing/instance_writer.h"
#include "zr/messaging/halden/service.pb.h"

namespace zr::halden::test {

using namespace halden::testing;

struct NodeStat {
  std::int64_t czxid = 0;
  std::int64_t ephemeralOwner = 0;  ///< 0 for a node that belongs to no session
};

enum class NodeKind : std::uint8_t { Persistent, Ephemeral };

/// What the bytes of an instance's node say, read without the library's own code; nothing when they do not decode.
/// Nodes too small to be worth compressing only.
std::optional<zr::messaging::halden::ServiceInstanceData> DecodeInstance(const std::string& bytes);

/// What others do to the ensemble while the library watches: a plain, waiting client on the C library, which
/// shares no code with ours but the layout of the nodes.
///
/// Every operation waits until it is answered, through lost connections and expired sessions too, and throws
/// std::runtime_error when that takes longer than a test may wait, or when the answer is none of those it can
/// mean. Paths stand below the chroot, which is created with the first node. One thread at a time.
class ZooKeeperClient {
 public:
  /// `hosts`: "address:port", numeric.
  explicit ZooKeeperClient(const std::string& hosts, std::string chroot = {});
  ~ZooKeeperClient();

  ZooKeeperClient(const ZooKeeperClient&) = delete;
  ZooKeeperClient& operator=(const ZooKeeperClient&) = delete;

  /// Creates the node and its absent parents; false when it is there already, and stays as it is.
  bool Create(const std::string& path, const std::string& data = {}, NodeKind kind = NodeKind::Persistent,
              const ACL_vector& acl = ZOO_OPEN_ACL_UNSAFE);
  void Set(const std::string& path, const std::string& data);
  void SetAcl(const std::string& path, const ACL_vector& acl);
  /// Deletes the node and all below it, where there is anything.
  void Delete(const std::string& path);

  std::optional<std::string> Get(const std::string& path);
  std::vector<std::string> Children(const std::string& path);  ///< empty for an absent node
  std::optional<NodeStat> Stat(const std::string& path);

  /// Creates the instance's node with `bytes`, or writes them into the one that is there.
  void PublishRaw(const std::string& service, const ServiceId& id, const std::string& bytes,
                  NodeKind kind = NodeKind::Persistent);
  void Publish(const std::string& service, const ServiceId& id,
               const zr::messaging::halden::ServiceInstanceData& data) {
    PublishRaw(service, id, EncodeInstance(data));
  }
  void Unpublish(const std::string& service, const ServiceId& id);

  static std::string InstancePath(const std::string& service, const ServiceId& id);
  std::optional<NodeStat> InstanceStat(const std::string& service, const ServiceId& id) {
    return Stat(InstancePath(service, id));
  }
  std::map<ServiceId, std::string> ReadInstances(const std::string& service);

  /// Waits for a session and returns it.
  clientid_t Session();
  void Authenticate(const std::string& scheme, const std::string& credential);

 private:
  using Request = std::function<int(zhandle_t*, const char*)>;

  void Open(const clientid_t* session);
  void AwaitConnected(const std::string& what);
  bool CreateAt(const std::string& absolute, const std::string& data, int mode, const ACL_vector& acl);
  /// The answer to `request`, asked again as long as that can help; ZOK or one of `accepted`.
  int Run(const std::string& what, const std::string& absolute, std::initializer_list<int> accepted,
          const Request& request);

  const std::string m_hosts;
  const std::string m_chroot;
  zhandle_t* m_handle = nullptr;
};

}  // namespace zr::halden::test
