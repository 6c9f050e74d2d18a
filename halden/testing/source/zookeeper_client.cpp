// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "halden/testing/zookeeper_client.h"

#include <algorithm>
#include <utility>

#include "halden/testing/error.h"
#include "halden/testing/poll.h"
#include "model/layout.h"
#include "wire.h"
#include "wire_session.h"

namespace zr::halden::testing {

namespace {

constexpr std::int32_t kCreate = 1, kDelete = 2, kExists = 3, kGet = 4, kSet = 5, kSetAcl = 7, kChildren = 8;
constexpr std::int32_t kAnyVersion = -1;
constexpr char kNoWatch = '\0';

std::string EncodeAccess(Access access) {
  constexpr std::int32_t entries = 1;
  constexpr std::int32_t allPermissions = 0x1F;
  const bool all = access == Access::Everybody;
  return Encode(entries) + Encode(allPermissions) + Encode(all ? "world" : "auth") +
         Encode(all ? "anyone" : "");
}

std::string Below(std::string path, const std::string& name) {
  path += '/';
  path += name;
  return path;
}

std::string ParentOf(const std::string& path) {
  return path.substr(0, path.rfind('/'));
}

}  // namespace

std::string EncodeInstance(const zr::messaging::halden::ServiceInstanceData& data) {
  zr::messaging::halden::ZNodeData node;
  node.set_compression(zr::messaging::halden::ZNodeData::COMP_NONE);
  node.set_payload(data.SerializeAsString());
  node.mutable_user()->set_name("test");
  return node.SerializeAsString();
}

std::optional<zr::messaging::halden::ServiceInstanceData> DecodeInstance(const std::string& bytes) {
  zr::messaging::halden::ZNodeData node;
  zr::messaging::halden::ServiceInstanceData data;
  if (!node.ParseFromString(bytes) || !data.ParseFromString(node.payload())) return std::nullopt;
  return data.service_name().empty() ? std::nullopt : std::optional(std::move(data));
}

ZooKeeperClient::ZooKeeperClient(const std::string& hosts, std::string chroot)
    : m_chroot(std::move(chroot)), m_session(std::make_unique<WireSession>(hosts)) {}

ZooKeeperClient::~ZooKeeperClient() = default;

/// The code that was answered: ZOK or one of `accepted`.
int ZooKeeperClient::Run(const char* what, std::int32_t operation, const std::string& path,
                         const std::string& rest, std::initializer_list<int> accepted, std::string* answer) {
  std::string ignored;
  const int code = m_session->Call(operation, Encode(path) + rest, answer != nullptr ? *answer : ignored);
  if (code != ZOK && std::find(accepted.begin(), accepted.end(), code) == accepted.end()) {
    throw ZooError(code, std::string(what) + " " + path);
  }
  return code;
}

bool ZooKeeperClient::Create(const std::string& path, const std::string& data, NodeKind kind, Access access) {
  return CreateAt(m_chroot + path, data, kind, access);
}

bool ZooKeeperClient::CreateAt(const std::string& absolute, const std::string& data, NodeKind kind,
                               Access access) {
  const std::string rest = Encode(data) + EncodeAccess(access) + Encode(kind == NodeKind::Ephemeral ? 1 : 0);
  int code = ZNONODE;
  // Again and again: servers remove empty parents that publishers made.
  const bool there = Poll(kLimit, [&] {
    code = Run("create", kCreate, absolute, rest, {ZNODEEXISTS, ZNONODE});
    if (code == ZNONODE) CreateAt(ParentOf(absolute), {}, NodeKind::Persistent, Access::Everybody);
    return code != ZNONODE;
  });
  if (!there) throw TestingError("create " + absolute + ": its parents keep vanishing");
  return code == ZOK;
}

void ZooKeeperClient::Set(const std::string& path, const std::string& data) {
  Run("set", kSet, m_chroot + path, Encode(data) + Encode(kAnyVersion), {});
}

void ZooKeeperClient::SetAccess(const std::string& path, Access access) {
  Run("set the ACL of", kSetAcl, m_chroot + path, EncodeAccess(access) + Encode(kAnyVersion), {});
}

void ZooKeeperClient::Delete(const std::string& path) {
  const bool deleted = Poll(kLimit, [&] {
    for (const auto& child : Children(path)) Delete(Below(path, child));
    return Run("delete", kDelete, m_chroot + path, Encode(kAnyVersion), {ZNONODE, ZNOTEMPTY}) != ZNOTEMPTY;
  });
  if (!deleted) throw TestingError("delete " + m_chroot + path + ": children keep coming");
}

std::optional<std::string> ZooKeeperClient::Get(const std::string& path) {
  std::string answer;
  if (Run("get", kGet, m_chroot + path, {kNoWatch}, {ZNONODE}, &answer) == ZNONODE) return std::nullopt;
  std::size_t offset = 0;
  return DecodeText(answer, offset);
}

std::vector<std::string> ZooKeeperClient::Children(const std::string& path) {
  std::string answer;
  std::vector<std::string> names;
  if (Run("list", kChildren, m_chroot + path, {kNoWatch}, {ZNONODE}, &answer) == ZNONODE) return names;
  const auto count = Decode<std::int32_t>(answer, 0);
  std::size_t offset = sizeof count;
  for (std::int32_t i = 0; i < count; ++i) names.push_back(DecodeText(answer, offset));
  return names;
}

std::optional<NodeStat> ZooKeeperClient::Stat(const std::string& path) {
  constexpr std::size_t ownerAt = 4 * sizeof(std::int64_t) + 3 * sizeof(std::int32_t);
  std::string answer;
  if (Run("stat", kExists, m_chroot + path, {kNoWatch}, {ZNONODE}, &answer) == ZNONODE) return std::nullopt;
  return NodeStat{Decode<std::int64_t>(answer, 0), Decode<std::int64_t>(answer, ownerAt)};
}

zr::String ZooKeeperClient::InstancePath(const zr::String& service, const ServiceId& id) {
  return details::InstancePath(details::ServicePath(service), id);
}

void ZooKeeperClient::Publish(const zr::String& service, const ServiceId& id,
                              zr::messaging::halden::ServiceInstanceData data) {
  if (data.service_name().empty()) data.set_service_name(service);
  PublishRaw(service, id, EncodeInstance(data));
}

void ZooKeeperClient::PublishRaw(const zr::String& service, const ServiceId& id, const std::string& bytes,
                                 NodeKind kind) {
  if (!Create(InstancePath(service, id), bytes, kind)) Set(InstancePath(service, id), bytes);
}

void ZooKeeperClient::Unpublish(const zr::String& service, const ServiceId& id) {
  Delete(InstancePath(service, id));
}

std::map<ServiceId, std::string> ZooKeeperClient::ReadInstances(const zr::String& service) {
  std::map<ServiceId, std::string> instances;
  const zr::String servicePath = details::ServicePath(service);
  for (const auto& partition : Children(servicePath)) {
    const zr::String partitionPath = Below(servicePath, partition);
    for (const auto& name : Children(partitionPath)) {
      const auto id = ParseServiceId(name);
      if (!id || details::PartitionName(details::PartitionOf(*id)) != partition) continue;
      if (auto bytes = Get(Below(partitionPath, name))) instances[*id] = std::move(*bytes);
    }
  }
  return instances;
}

void ZooKeeperClient::Authenticate(const std::string& scheme, const std::string& credential) {
  m_session->Authenticate(scheme, credential);
}

clientid_t ZooKeeperClient::Session() {
  std::string ignored;
  m_session->Call(kExists, Encode("/") + kNoWatch, ignored);  // an answer takes a session
  return m_session->Id();
}

}  // namespace zr::halden::testing
