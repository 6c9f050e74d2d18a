// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "halden/service_publisher.h"

#include <pwd.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>

#include "base/clock.h"
#include "model/access_list.h"
#include "model/node_codec.h"
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

details::AccessListPtr CheckedAccess(const zr::String& acl) {
  if (acl.empty()) return nullptr;
  auto parsed = details::ParseAccessList(acl);
  if (!parsed.error.empty()) {
    throw std::invalid_argument("ServicePublisher: acl, character " + std::to_string(parsed.offset + 1) +
                                ": " + parsed.error);
  }
  return std::make_shared<const details::AccessList>(std::move(parsed.value));
}

std::int64_t NowMs() {
  const auto now = details::TimeOfDay().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
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

std::ostream& operator<<(std::ostream& out, PublishState state) {
  return out << ToString(state);
}

ServicePublisher::ServicePublisher(std::shared_ptr<Connection> conn, const zr::String& serviceName,
                                   const ServiceId& id, const zr::String& acl)
    : m_serviceName(CheckedName(conn, serviceName)),
      m_startTimeMs(NowMs()),
      m_conn(std::move(conn)),
      m_core(std::make_shared<details::PublisherCore>(details::CoreOf(*m_conn), m_serviceName, id,
                                                      CheckedAccess(acl))) {
  m_core->Start(*m_conn);
}

ServicePublisher::~ServicePublisher() {
  if (m_core) m_core->Stop();
}

ServicePublisher& ServicePublisher::operator=(ServicePublisher&& other) noexcept {
  ServicePublisher moved(std::move(other));
  std::swap(m_serviceName, moved.m_serviceName);
  std::swap(m_startTimeMs, moved.m_startTimeMs);
  std::swap(m_conn, moved.m_conn);
  std::swap(m_core, moved.m_core);
  return *this;  // `moved` ends what was published here
}

void ServicePublisher::Publish(ServiceInstanceData data) {
  if (data.service_name().empty()) data.set_service_name(m_serviceName);
  if (data.start_time_ms() == 0) data.set_start_time_ms(m_startTimeMs);
  if (const auto why = WhyUnfit(data, m_serviceName); !why.empty()) {
    throw ZooError(ZBADARGUMENTS, "instance data cannot be published: " + why);
  }
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
