// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "halden/service_publisher.h"

#include <pwd.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <utility>

#include "node_codec.h"
#include "publish/publisher_core.h"

namespace zr::halden {

namespace {

/// The account's name if the machine's own list has it, else its number. The name service is not asked: it may
/// ask a directory far away, and `Publish` waits for nothing.
zr::String Account() {
  const uid_t uid = geteuid();
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> list(std::fopen("/etc/passwd", "re"), &std::fclose);
  std::array<char, 4096> buffer{};
  passwd entry{};
  passwd* found = nullptr;
  while (list && fgetpwent_r(list.get(), &entry, buffer.data(), buffer.size(), &found) == 0) {
    if (found->pw_uid == uid) return found->pw_name;
  }
  return std::to_string(uid);
}

/// Who publishes: this process.
zr::messaging::halden::User ThisUser() {
  zr::messaging::halden::User user;
  std::array<char, 256> host{};
  if (gethostname(host.data(), host.size() - 1) == 0) user.set_host(host.data());
  user.set_name(Account());
  user.set_pid(static_cast<std::uint32_t>(getpid()));
  user.set_writer("halden/" HALDEN_VERSION);
  return user;
}

zr::String CheckedName(const std::shared_ptr<Connection>& conn, const zr::String& name) {
  if (!conn) throw std::invalid_argument("ServicePublisher: null connection");
  if (!IsValidServiceName(name)) throw std::invalid_argument("ServicePublisher: invalid service name");
  return name;
}

}  // namespace

std::string_view ToString(PublishState state) {
  switch (state) {
    case PublishState::Absent:
      return "absent";
    case PublishState::Publishing:
      return "publishing";
    case PublishState::Published:
      return "published";
    case PublishState::Conflict:
      return "conflict";
  }
  return "unknown";
}

ServicePublisher::ServicePublisher(std::shared_ptr<Connection> conn, const zr::String& serviceName,
                                   const ServiceId& id)
    : m_serviceName(CheckedName(conn, serviceName)),
      m_conn(std::move(conn)),
      m_core(std::make_shared<details::PublisherCore>(details::CoreOf(*m_conn), m_serviceName, id)) {
  m_core->Start(*m_conn);
}

ServicePublisher::~ServicePublisher() {
  m_core->Stop();
}

void ServicePublisher::Publish(ServiceInstanceData data) {
  if (data.service_name().empty()) data.set_service_name(m_serviceName);
  std::string bytes = details::EncodeNode(data, ThisUser());
  if (bytes.size() > details::kMaxNodeBytes) {
    throw ZooError(ZBADARGUMENTS, "instance data of " + std::to_string(bytes.size()) +
                                      " bytes does not fit into a node, which holds " +
                                      std::to_string(details::kMaxNodeBytes));
  }
  // What no reader would accept (text that is not UTF-8, say) must not be published.
  if (const auto decoded = details::DecodeNode(bytes); !decoded.payload) {
    throw ZooError(ZBADARGUMENTS, "instance data cannot be published: " + decoded.error);
  }
  m_core->Publish(std::move(bytes));
}

void ServicePublisher::Remove() {
  m_core->Remove();
}

const ServiceId& ServicePublisher::Id() const {
  return m_core->Id();
}

PublisherStatus ServicePublisher::Status() const {
  return m_core->Status();
}

bool ServicePublisher::AwaitPublished(std::chrono::milliseconds limit) const {
  return m_core->AwaitPublished(limit);
}

bool ServicePublisher::AwaitAbsent(std::chrono::milliseconds limit) const {
  return m_core->AwaitAbsent(limit);
}

}  // namespace zr::halden
