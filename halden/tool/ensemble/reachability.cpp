// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "ensemble/reachability.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <sstream>
#include <system_error>
#include <utility>

#include "base/task_thread.h"
#include "client/name_resolution.h"
#include "render/state_text.h"

namespace zr::halden::tool {

namespace {

using std::chrono::milliseconds;

/// 0, or the errno that connecting ended with.
int Connect(const addrinfo& address, milliseconds limit) {
  const int fd = socket(address.ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return errno;
  int error = connect(fd, address.ai_addr, address.ai_addrlen) == 0 ? 0 : errno;
  if (error == EINPROGRESS) {
    pollfd writable{fd, POLLOUT, 0};
    socklen_t length = sizeof error;
    if (poll(&writable, 1, static_cast<int>(limit.count())) == 0) {
      error = ETIMEDOUT;
    } else if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) {
      error = errno;
    }
  }
  close(fd);
  return error;
}

zr::String WhyOneUnreachable(const zr::String& address, milliseconds limit) {
  const auto colon = address.rfind(':');  // IPv6 has no brackets here
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  const int code =
      getaddrinfo(address.substr(0, colon).c_str(), address.substr(colon + 1).c_str(), &hints, &list);
  if (code != 0) return gai_strerror(code);
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(list, freeaddrinfo);
  const int error = Connect(*list, limit);
  return error == 0 ? zr::String() : std::generic_category().message(error);
}

/// Why none of "address:port,address:port..." (numeric, IPv6 without brackets) takes a connection; empty when one does.
zr::String WhyUnreachable(const zr::String& addresses, milliseconds limit) {
  zr::String why = "no address";
  std::istringstream stream(addresses);
  for (zr::String address; std::getline(stream, address, ',');) {
    why = WhyOneUnreachable(address, limit);
    if (why.empty()) break;
  }
  return why;
}

std::string NameOf(const details::HostPort& server) {
  const bool ipv6 = server.host.find(':') != zr::String::npos;
  return (ipv6 ? '[' + server.host + ']' : server.host) + ':' + std::to_string(server.port);
}

/// What has been found so far: shared with threads that a resolver may hold for longer than anybody waits.
struct Findings {
  std::mutex mtx;  // guards all below
  std::condition_variable changed;
  std::vector<ServerFacts> facts;
  std::size_t open = 0;
};

void Examine(const details::HostPort& server, std::size_t index, milliseconds limit, Findings& findings) {
  const auto resolved = details::Resolve({server});
  const bool found = !resolved.addresses.empty();
  const auto connectError = found ? WhyUnreachable(resolved.addresses, limit) : "its name does not resolve";
  const std::lock_guard lock(findings.mtx);
  findings.facts[index].resolveError = resolved.error;
  findings.facts[index].connectError = connectError;
  --findings.open;
  findings.changed.notify_all();
}

std::string WhyNoSession(const zr::String& ensemble) {
  constexpr milliseconds limit{1000};
  std::string parts;
  bool reached = false;
  for (const auto& server : ExamineServers(details::ParseConnectString(ensemble).value.hosts, limit)) {
    const bool taken = server.connectError.empty();
    reached = reached || taken;
    parts += (parts.empty() ? "" : "; ") + server.server + ": " +
             (taken ? "takes the connection, grants no session" : server.connectError);
  }
  return (reached ? "no session: " : "no server is reached: ") + parts;
}

}  // namespace

std::vector<ServerFacts> ExamineServers(const std::vector<details::HostPort>& servers, milliseconds limit) {
  const auto findings = std::make_shared<Findings>();
  for (const auto& server : servers) {
    findings->facts.push_back({NameOf(server), details::HasNames({server}), {}, "no answer"});
  }
  findings->open = servers.size();
  for (std::size_t i = 0; i < servers.size(); ++i) {
    details::TaskThread thread("halden-examine");  // ends by itself when it has answered
    thread.Post([findings, server = servers[i], i, limit] { Examine(server, i, limit, *findings); });
  }
  std::unique_lock lock(findings->mtx);
  findings->changed.wait_for(lock, limit, [&] { return findings->open == 0; });
  return findings->facts;
}

std::string WhyUnread(const DataCenterStatus& status, const zr::String& ensemble) {
  const auto state = status.connection.state;
  const bool told = state == ConnectionState::Connected || state == ConnectionState::AuthFailed;
  return told ? StateText(status) : WhyNoSession(ensemble);
}

}  // namespace zr::halden::tool
