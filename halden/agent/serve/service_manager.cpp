// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "agent/serve/service_manager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace zr::halden::agent {

namespace {

std::string_view Environment(const char* name) {
  const char* value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe): nothing of ours writes it
  return value == nullptr ? std::string_view() : value;
}

int Connected(std::string_view name) {
  sockaddr_un address{};
  if (name.empty() || name.size() >= sizeof address.sun_path) return -1;
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, name.data(), name.size());
  if (name.front() == '@')
    address.sun_path[0] = '\0';  // of the abstract kind, whose name ends with its length
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
  const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (descriptor < 0) return -1;
  if (connect(descriptor, reinterpret_cast<const sockaddr*>(&address), length) == 0) return descriptor;
  close(descriptor);
  return -1;
}

}  // namespace

ServiceManager::ServiceManager() : m_socket(Connected(Environment("NOTIFY_SOCKET"))) {
  const auto text = Environment("WATCHDOG_USEC");
  long long interval = 0;
  if (std::from_chars(text.data(), text.data() + text.size(), interval).ec == std::errc() && interval > 0 &&
      m_socket >= 0) {
    m_watchdog = std::chrono::microseconds(interval);
  }
}

ServiceManager::~ServiceManager() {
  if (m_socket >= 0) close(m_socket);
}

void ServiceManager::Tell(std::string_view message) const {
  if (m_socket >= 0) static_cast<void>(send(m_socket, message.data(), message.size(), MSG_NOSIGNAL));
}

void ServiceManager::TellStatus(const std::string& status) {
  if (status == m_status) return;
  m_status = status;
  Tell("STATUS=" + status);
}

}  // namespace zr::halden::agent
