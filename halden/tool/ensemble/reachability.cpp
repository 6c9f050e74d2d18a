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
#include <string_view>
#include <system_error>
#include <utility>

#include "base/task_thread.h"
#include "client/name_resolution.h"
#include "render/state_text.h"

namespace zr::halden::tool {

namespace {

using std::chrono::milliseconds;

/// What a server does with a connection, and words for it: none where it is as it should be.
struct Reception {
  bool closes = false;
  zr::String trouble;
};

/// 0, or the errno that connecting ended with.
int Connect(int fd, const addrinfo& address, milliseconds limit) {
  if (connect(fd, address.ai_addr, address.ai_addrlen) == 0) return 0;
  if (errno != EINPROGRESS) return errno;
  pollfd writable{fd, POLLOUT, 0};
  int error = 0;
  socklen_t length = sizeof error;
  if (poll(&writable, 1, static_cast<int>(limit.count())) == 0) return ETIMEDOUT;
  return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0 ? error : errno;
}

/// A server answers the question for its state, if only that it is not to be asked. Who closes the connection
/// instead does not get it through to a server. One that is silent may be busy.
bool Closes(int fd, milliseconds limit) {
  constexpr std::string_view question = "srvr\n";  // a TLS port looks at five bytes before it closes
  const auto gone = [] { return errno == ECONNRESET || errno == EPIPE; };
  if (send(fd, question.data(), question.size(), MSG_NOSIGNAL) < 0) return gone();
  pollfd readable{fd, POLLIN, 0};
  if (poll(&readable, 1, static_cast<int>(limit.count())) <= 0) return false;
  char answer = 0;
  const auto length = recv(fd, &answer, 1, 0);
  return length == 0 || (length < 0 && gone());
}

Reception ReceptionAtOne(const zr::String& address, milliseconds limit) {
  const auto colon = address.rfind(':');  // IPv6 has no brackets here
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  const int code =
      getaddrinfo(address.substr(0, colon).c_str(), address.substr(colon + 1).c_str(), &hints, &list);
  if (code != 0) return {false, gai_strerror(code)};
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(list, freeaddrinfo);
  const int fd = socket(list->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return {false, std::generic_category().message(errno)};
  const auto begin = std::chrono::steady_clock::now();
  const int error = Connect(fd, *list, limit);
  const auto left = limit - std::chrono::ceil<milliseconds>(std::chrono::steady_clock::now() - begin);
  const bool closes =
      error == ECONNRESET ||  // taken, and closed by the time it was looked at
      (error == 0 && Closes(fd, std::max(left / 2, milliseconds(0))));  // silent or not, in time
  close(fd);
  if (closes) return {true, "closes the connection at once"};
  return {false, error == 0 ? zr::String() : std::generic_category().message(error)};
}

/// Of the first of "address:port,address:port..." (numeric, IPv6 without brackets) that is in order, else of the last.
Reception ReceptionAt(const zr::String& addresses, milliseconds limit) {
  Reception reception{false, "no address"};
  std::istringstream stream(addresses);
  for (zr::String address; std::getline(stream, address, ',');) {
    reception = ReceptionAtOne(address, limit);
    if (reception.trouble.empty()) break;
  }
  return reception;
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
  const auto reception =
      found ? ReceptionAt(resolved.addresses, limit) : Reception{false, "its name does not resolve"};
  const std::lock_guard lock(findings.mtx);
  findings.facts[index].resolveError = resolved.error;
  findings.facts[index].connectError = reception.trouble;
  findings.facts[index].closes = reception.closes;
  --findings.open;
  findings.changed.notify_all();
}

std::string WhyNoSession(const zr::String& ensemble) {
  constexpr milliseconds limit{3000};
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
