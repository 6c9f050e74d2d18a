// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "support/zookeeper_client.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "layout.h"
#include "support/await.h"

namespace zr::halden::test {

namespace {

constexpr int kSessionTimeoutMs = 30000;

void IgnoreEvent(zhandle_t*, int, int, const char*, void*) {}
void DropLine(const char*) {}

/// Whether asking again, on this session or the next, can help.
bool Transient(int code) {
  switch (code) {
    case ZCONNECTIONLOSS:
    case ZOPERATIONTIMEOUT:
    case ZINVALIDSTATE:
    case ZSESSIONEXPIRED:
    case ZSESSIONMOVED:
    case ZMARSHALLINGERROR:
    case ZCLOSING:
      return true;
    default:
      return false;
  }
}

std::string ParentOf(const std::string& path) {
  return path.substr(0, path.rfind('/'));
}

}  // namespace

std::optional<zr::messaging::halden::ServiceInstanceData> DecodeInstance(const std::string& bytes) {
  zr::messaging::halden::ZNodeData node;
  zr::messaging::halden::ServiceInstanceData data;
  if (!node.ParseFromString(bytes) || !data.ParseFromString(node.payload())) return std::nullopt;
  return data.service_name().empty() ? std::nullopt : std::optional(std::move(data));
}

ZooKeeperClient::ZooKeeperClient(const std::string& hosts, std::string chroot)
    : m_hosts(hosts), m_chroot(std::move(chroot)) {
  Open(nullptr);
}

ZooKeeperClient::~ZooKeeperClient() {
  zookeeper_close(m_handle);
}

void ZooKeeperClient::Open(const clientid_t* session) {
  m_handle = zookeeper_init2(m_hosts.c_str(), IgnoreEvent, kSessionTimeoutMs, session, nullptr,
                             ZOO_NO_LOG_CLIENTENV, DropLine);
  if (m_handle == nullptr) throw std::runtime_error("no client handle for " + m_hosts);
}

void ZooKeeperClient::AwaitConnected(const std::string& what) {
  // A server that is just starting can take the connection and never answer: then another handle goes on.
  constexpr std::chrono::milliseconds patience{500};
  auto since = std::chrono::steady_clock::now();
  const bool connected = Poll(kLimit, [&] {
    if (zoo_state(m_handle) == ZOO_CONNECTED_STATE) return true;
    const bool over = is_unrecoverable(m_handle) == ZINVALIDSTATE;
    const auto now = std::chrono::steady_clock::now();
    if (over || now - since > patience) {
      const clientid_t session = *zoo_client_id(m_handle);
      zookeeper_close(m_handle);
      Open(over || session.client_id == 0 ? nullptr : &session);
      since = now;
    }
    return false;
  });
  if (!connected) throw std::runtime_error(what + ": no connection to " + m_hosts);
}

int ZooKeeperClient::Run(const std::string& what, const std::string& absolute,
                         std::initializer_list<int> accepted, const Request& request) {
  int code = ZOK;
  Poll(kLimit, [&] {
    AwaitConnected(what);
    code = request(m_handle, absolute.c_str());
    return !Transient(code);
  });
  if (code != ZOK && std::find(accepted.begin(), accepted.end(), code) == accepted.end()) {
    throw std::runtime_error(what + " " + absolute + ": " + zerror(code));
  }
  return code;
}

bool ZooKeeperClient::Create(const std::string& path, const std::string& data, NodeKind kind,
                             const ACL_vector& acl) {
  return CreateAt(m_chroot + path, data, kind == NodeKind::Ephemeral ? ZOO_EPHEMERAL : ZOO_PERSISTENT, acl);
}

bool ZooKeeperClient::CreateAt(const std::string& absolute, const std::string& data, int mode,
                               const ACL_vector& acl) {
  int code = ZNONODE;
  // Again and again: the server removes empty parents that the library made.
  const bool there = Poll(kLimit, [&] {
    code = Run("create", absolute, {ZNODEEXISTS, ZNONODE}, [&](zhandle_t* handle, const char* node) {
      return zoo_create(handle, node, data.data(), static_cast<int>(data.size()), &acl, mode, nullptr, 0);
    });
    if (code == ZNONODE) CreateAt(ParentOf(absolute), {}, ZOO_PERSISTENT, ZOO_OPEN_ACL_UNSAFE);
    return code != ZNONODE;
  });
  if (!there) throw std::runtime_error("create " + absolute + ": its parents keep vanishing");
  return code == ZOK;
}

void ZooKeeperClient::Set(const std::string& path, const std::string& data) {
  Run("set", m_chroot + path, {}, [&](zhandle_t* handle, const char* node) {
    return zoo_set(handle, node, data.data(), static_cast<int>(data.size()), -1);
  });
}

void ZooKeeperClient::SetAcl(const std::string& path, const ACL_vector& acl) {
  Run("set the ACL of", m_chroot + path, {},
      [&](zhandle_t* handle, const char* node) { return zoo_set_acl(handle, node, -1, &acl); });
}

void ZooKeeperClient::Delete(const std::string& path) {
  const auto remove = [](zhandle_t* handle, const char* node) { return zoo_delete(handle, node, -1); };
  const bool deleted = Poll(kLimit, [&] {
    for (const auto& child : Children(path)) Delete(path + "/" + child);
    return Run("delete", m_chroot + path, {ZNONODE, ZNOTEMPTY}, remove) != ZNOTEMPTY;
  });
  if (!deleted) throw std::runtime_error("delete " + m_chroot + path + ": children keep coming");
}

std::optional<std::string> ZooKeeperClient::Get(const std::string& path) {
  std::string data(4096, '\0');
  struct Stat stat {};
  int length = 0;
  const auto get = [&](zhandle_t* handle, const char* node) {
    length = static_cast<int>(data.size());
    return zoo_get(handle, node, 0, data.data(), &length, &stat);
  };
  if (Run("get", m_chroot + path, {ZNONODE}, get) == ZNONODE) return std::nullopt;
  while (static_cast<std::size_t>(stat.dataLength) > data.size()) {
    data.resize(static_cast<std::size_t>(stat.dataLength));
    if (Run("get", m_chroot + path, {ZNONODE}, get) == ZNONODE) return std::nullopt;
  }
  data.resize(static_cast<std::size_t>(std::max(length, 0)));
  return data;
}

std::vector<std::string> ZooKeeperClient::Children(const std::string& path) {
  std::vector<std::string> names;
  String_vector list{};
  const int code = Run("list", m_chroot + path, {ZNONODE}, [&](zhandle_t* handle, const char* node) {
    return zoo_get_children(handle, node, 0, &list);
  });
  if (code != ZOK) return names;
  for (int i = 0; i < list.count; ++i) names.emplace_back(list.data[i]);
  deallocate_String_vector(&list);
  return names;
}

std::optional<NodeStat> ZooKeeperClient::Stat(const std::string& path) {
  struct Stat stat {};
  const int code = Run("stat", m_chroot + path, {ZNONODE}, [&](zhandle_t* handle, const char* node) {
    return zoo_exists(handle, node, 0, &stat);
  });
  if (code != ZOK) return std::nullopt;
  return NodeStat{stat.czxid, stat.ephemeralOwner};
}

std::string ZooKeeperClient::InstancePath(const std::string& service, const ServiceId& id) {
  return details::InstancePath(details::ServicePath(service), id);
}

void ZooKeeperClient::PublishRaw(const std::string& service, const ServiceId& id, const std::string& bytes,
                                 NodeKind kind) {
  if (!Create(InstancePath(service, id), bytes, kind)) Set(InstancePath(service, id), bytes);
}

void ZooKeeperClient::Unpublish(const std::string& service, const ServiceId& id) {
  Delete(InstancePath(service, id));
}

std::map<ServiceId, std::string> ZooKeeperClient::ReadInstances(const std::string& service) {
  std::map<ServiceId, std::string> instances;
  const std::string servicePath = details::ServicePath(service);
  for (const auto& partition : Children(servicePath)) {
    const std::string partitionPath = servicePath + "/" + partition;
    for (const auto& name : Children(partitionPath)) {
      const auto id = ParseServiceId(name);
      if (!id || details::PartitionName(details::PartitionOf(*id)) != partition) continue;
      if (auto bytes = Get(partitionPath + "/" + name)) instances[*id] = std::move(*bytes);
    }
  }
  return instances;
}

clientid_t ZooKeeperClient::Session() {
  AwaitConnected("session");
  return *zoo_client_id(m_handle);
}

void ZooKeeperClient::Authenticate(const std::string& scheme, const std::string& credential) {
  AwaitConnected("authenticate");
  // Nothing to wait for: requests that follow are answered after it.
  zoo_add_auth(m_handle, scheme.c_str(), credential.data(), static_cast<int>(credential.size()), nullptr,
               nullptr);
}

}  // namespace zr::halden::test
