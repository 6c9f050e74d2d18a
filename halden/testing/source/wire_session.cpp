// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "wire_session.h"

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <sstream>
#include <utility>

#include "halden/testing/poll.h"
#include "loopback.h"
#include "wire.h"

namespace zr::halden::testing {

namespace {

constexpr std::int32_t kSync = 9, kPing = 11, kAuthenticate = 100, kClose = -11;
constexpr std::int32_t kPingXid = -2, kAuthenticationXid = -4;
constexpr std::chrono::milliseconds kSessionTimeout{30000};
constexpr timeval kPatience{2, 0};  // for a connection, and for an answer: then the next server
constexpr std::size_t kPasswordBytes = sizeof(clientid_t::passwd);
constexpr std::size_t kMaxAnswerBytes = 8U << 20U;

}  // namespace

WireSession::WireSession(const std::string& hosts) : m_hosts(hosts), m_password(kPasswordBytes, '\0') {
  std::istringstream list(hosts);
  for (std::string host; std::getline(list, host, ',');) {
    const auto colon = host.rfind(':');
    if (colon == std::string::npos) throw TestingError("no port in \"" + host + "\"");
    m_servers.push_back({host.substr(0, colon), host.substr(colon + 1)});
  }
  if (m_servers.empty()) throw TestingError("a connect string without servers");
  m_thread = std::thread([this] { KeepAlive(); });
}

WireSession::~WireSession() {
  {
    const std::lock_guard lock(m_mtx);
    m_ending = true;
  }
  m_changed.notify_all();
  m_thread.join();
  std::string ignored;
  if (m_socket >= 0) Exchange(Encode(++m_xid) + Encode(kClose), ignored);
  Disconnect();
}

void WireSession::KeepAlive() {
  BlockSignals();
  constexpr std::chrono::milliseconds unused{100};  // between looks, while there is no session
  std::string ignored;
  std::unique_lock lock(m_mtx);
  while (!m_ending) {
    m_changed.wait_for(lock, m_session != 0 ? m_timeout / 3 : unused, [this] { return m_ending; });
    if (!m_ending && m_session != 0) Try(kPingXid, kPing, {}, ignored);
  }
}

int WireSession::Call(std::int32_t operation, const std::string& request, std::string& answer) {
  const std::lock_guard lock(m_mtx);
  std::optional<int> code;
  Poll(kLimit, [&] { return (code = Try(++m_xid, operation, request, answer)).has_value(); });
  if (!code) throw TestingError("no ZooKeeper server answers at " + m_hosts);
  return *code;
}

void WireSession::Authenticate(const std::string& scheme, const std::string& credential) {
  constexpr std::int32_t type = 0;
  const std::lock_guard lock(m_mtx);
  m_authentication = Encode(type) + Encode(scheme) + Encode(credential);
  Disconnect();  // the next connection begins with it
}

clientid_t WireSession::Id() const {
  const std::lock_guard lock(m_mtx);
  clientid_t id{m_session, {}};
  std::memcpy(id.passwd, m_password.data(), kPasswordBytes);
  return id;
}

/// Nothing when another try, on another connection, may do better.
std::optional<int> WireSession::Try(std::int32_t xid, std::int32_t operation, const std::string& request,
                                    std::string& answer) {
  constexpr std::size_t codeAt = sizeof xid + sizeof(std::int64_t);
  constexpr std::size_t restAt = codeAt + sizeof(std::int32_t);
  if (m_socket < 0 && !Connect()) return std::nullopt;
  if (Exchange(Encode(xid) + Encode(operation) + request, answer) && answer.size() >= restAt &&
      Decode<std::int32_t>(answer, 0) == xid) {
    const int code = Decode<std::int32_t>(answer, codeAt);
    answer.erase(0, restAt);
    if (code != ZSESSIONEXPIRED && code != ZSESSIONMOVED && code != ZCONNECTIONLOSS) return code;
  }
  Disconnect();
  return std::nullopt;
}

/// To the next server; takes up the session, or begins one.
bool WireSession::Connect() {
  constexpr std::int32_t version = 0;
  constexpr std::int64_t seen = 0;  // nothing: so servers that were wiped are as good as any
  constexpr std::size_t sessionAt = sizeof version + sizeof(std::int32_t);
  const Server& server = m_servers[m_next++ % m_servers.size()];
  const auto timeout = static_cast<std::int32_t>(kSessionTimeout.count());
  std::string answer;
  if (!Open(server.host, server.port) ||
      !Exchange(Encode(version) + Encode(seen) + Encode(timeout) + Encode(m_session) + Encode(m_password),
                answer)) {
    Disconnect();
    return false;
  }
  m_timeout = std::chrono::milliseconds(Decode<std::int32_t>(answer, sizeof version));
  m_session = Decode<std::int64_t>(answer, sessionAt);  // 0: the one to take up has expired
  std::size_t passwordAt = sessionAt + sizeof m_session;
  m_password = DecodeText(answer, passwordAt);
  m_password.resize(kPasswordBytes);
  const auto accepted = [&](std::int32_t xid, std::int32_t operation, const std::string& request) {
    return m_socket >= 0 && Try(xid, operation, request, answer) == ZOK;
  };
  const bool ready =
      m_session != 0 &&
      (m_authentication.empty() || accepted(kAuthenticationXid, kAuthenticate, m_authentication)) &&
      accepted(++m_xid, kSync, Encode("/"));
  if (!ready) Disconnect();
  return ready;
}

bool WireSession::Open(const std::string& host, const std::string& port) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), port.c_str(), &hints, &found) != 0) return false;
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> address(found, &freeaddrinfo);
  m_socket = socket(address->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  setsockopt(m_socket, SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof kPatience);
  setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience);
  return connect(m_socket, address->ai_addr, address->ai_addrlen) == 0;
}

/// Sends the message and waits for what comes back, without their lengths.
bool WireSession::Exchange(const std::string& message, std::string& answer) const {
  const std::string framed = Encode(message);
  std::string length(sizeof(std::int32_t), '\0');
  if (send(m_socket, framed.data(), framed.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(framed.size())) {
    return false;
  }
  if (!Read(length)) return false;
  const auto size = static_cast<std::size_t>(Decode<std::int32_t>(length, 0));
  if (size > kMaxAnswerBytes) return false;
  answer.resize(size);
  return Read(answer);
}

/// As many bytes as there is room for.
bool WireSession::Read(std::string& bytes) const {
  std::size_t got = 0;
  while (got < bytes.size()) {
    const ssize_t some = recv(m_socket, bytes.data() + got, bytes.size() - got, 0);
    if (some <= 0) return false;
    got += static_cast<std::size_t>(some);
  }
  return true;
}

void WireSession::Disconnect() {
  if (m_socket >= 0) close(std::exchange(m_socket, -1));
}

}  // namespace zr::halden::testing
