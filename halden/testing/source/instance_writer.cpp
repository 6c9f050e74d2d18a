// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "halden/testing/instance_writer.h"

#include <zookeeper/zookeeper.h>

#include <algorithm>
#include <initializer_list>
#include <utility>

#include "halden/error.h"
#include "halden/testing/poll.h"
#include "layout.h"
#include "wire_session.h"

namespace zr::halden::testing {

namespace {

/// The code that was answered; throws when it is none of those that the caller expects.
int Check(int code, std::initializer_list<int> expected, const zr::String& path) {
  if (std::find(expected.begin(), expected.end(), code) == expected.end()) throw ZooError(code, path);
  return code;
}

}  // namespace

std::string EncodeInstance(const zr::messaging::halden::ServiceInstanceData& data) {
  zr::messaging::halden::ZNodeData node;
  node.set_compression(zr::messaging::halden::ZNodeData::COMP_NONE);
  node.set_payload(data.SerializeAsString());
  node.mutable_user()->set_name("test");
  return node.SerializeAsString();
}

InstanceWriter::InstanceWriter(const std::string& connectString)
    : m_chroot(connectString.substr(std::min(connectString.find('/'), connectString.size()))),
      m_session(std::make_unique<WireSession>(connectString.substr(0, connectString.find('/')))) {}

InstanceWriter::~InstanceWriter() = default;

zr::String InstanceWriter::NodePath(const zr::String& service, const ServiceId& id) const {
  return m_chroot + details::InstancePath(details::ServicePath(service), id);
}

void InstanceWriter::CreateParents(const zr::String& path) {
  for (auto end = path.find('/', 1); end != zr::String::npos; end = path.find('/', end + 1)) {
    const zr::String parent = path.substr(0, end);
    // No node: an empty one of a publisher's making, which the server has just removed. The caller begins anew.
    if (Check(m_session->Create(parent, {}), {ZOK, ZNODEEXISTS, ZNONODE}, parent) == ZNONODE) return;
  }
}

void InstanceWriter::PublishBytes(const zr::String& service, const ServiceId& id, const std::string& bytes) {
  const zr::String path = NodePath(service, id);
  const bool done = Poll(kLimit, [&] {
    if (Check(m_session->Set(path, bytes), {ZOK, ZNONODE}, path) == ZOK) return true;
    const int code = Check(m_session->Create(path, bytes), {ZOK, ZNODEEXISTS, ZNONODE}, path);
    if (code == ZNONODE) CreateParents(path);
    return code == ZOK;
  });
  if (!done) throw ZooError(ZNONODE, path + " keeps vanishing");
}

void InstanceWriter::Publish(const zr::String& service, const ServiceId& id,
                             zr::messaging::halden::ServiceInstanceData data) {
  if (data.service_name().empty()) data.set_service_name(service);
  PublishBytes(service, id, EncodeInstance(data));
}

ServiceId InstanceWriter::Publish(const zr::String& service,
                                  zr::messaging::halden::ServiceInstanceData data) {
  const ServiceId id = MakeServiceId();
  Publish(service, id, std::move(data));
  return id;
}

void InstanceWriter::Remove(const zr::String& service, const ServiceId& id) {
  const zr::String path = NodePath(service, id);
  Check(m_session->Delete(path), {ZOK, ZNONODE}, path);
}

}  // namespace zr::halden::testing
