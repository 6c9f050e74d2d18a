// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "wire_session.h"

#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zookeeper/zookeeper.h>

#include <algorithm>
#include <concepts>
#include <memory>
#include <sstream>
#include <utility>

#include "halden/testing/error.h"
#include "halden/testing/poll.h"

namespace zr::halden::testing {

namespace {

constexpr std::int32_t kCreate = 1, kDelete = 2, kSet = 5, kClose = -11;
constexpr std::int32_t kAnyVersion = -1;
constexpr std::int32_t kAllPermissions = 0x1F;
constexpr std::int32_t kSessionTimeoutMs = 30000;
constexpr timeval kPatience{2,
                            0};  // for a connection, and for an answer: a frozen server has company, perhaps
constexpr std::size_t kPasswordBytes = 16;
constexpr std::size_t kMaxAnswerBytes = 4U << 20U;

template <std::integral Number>
std::string Encode(Number number) {
  std::string bytes;
  for (std::size_t shift = 8 * sizeof number; shift > 0; shift -= 8) {
    bytes += static_cast<char>(number >> (shift - 8) & 0xFF);
  }
  return bytes;
}

std::string Encode(const std::string& text) {
  return Encode(static_cast<std::int32_t>(text.size())) + text;
}

/// The number at `offset`; 0 where the bytes end before it does.
template <std::integral Number>
Number Decode(const std::string& bytes, std::size_t offset) {
  Number number = 0;
  for (std::size_t i = 0; i < sizeof number && offset + sizeof number <= bytes.size(); ++i) {
    number = static_cast<Number>(number << 8 | static_cast<unsigned char>(bytes[offset + i]));
  }
  return number;
}

}  // namespace

WireSession::WireSession(const std::string& hosts) : m_hosts(hosts), m_password(kPasswordBytes, '\0') {
  std::istringstream list(hosts);
  for (std::string host; std::getline(list, host, ',');) {
    const auto colon = host.rfind(':');
    if (colon == std::string::npos) throw TestingError("no port in \"" + host + "\"");
    m_servers.push_back({host.substr(0, colon), host.substr(colon + 1)});
  }
  if (m_servers.empty()) throw TestingError("a connect string without servers");
}

WireSession::~WireSession() {
  const std::string farewell = Encode(std::int32_t{8}) + Encode(++m_xid) + Encode(kClose);
  if (m_socket >= 0) send(m_socket, farewell.data(), farewell.size(), MSG_NOSIGNAL);  // else it just expires
  Disconnect();
}

int WireSession::Create(const std::string& path, const std::string& data) {
  const auto everybody = Encode(std::int32_t{1}) + Encode(kAllPermissions) + Encode("world") + Encode("anyone");
  return Call(kCreate, Encode(path) + Encode(data) + everybody + Encode(std::int32_t{0}));
}

int WireSession::Set(const std::string& path, const std::string& data) {
  return Call(kSet, Encode(path) + Encode(data) + Encode(kAnyVersion));
}

int WireSession::Delete(const std::string& path) {
  return Call(kDelete, Encode(path) + Encode(kAnyVersion));
}

int WireSession::Call(std::int32_t operation, const std::string& request) {
  std::optional<int> code;
  Poll(kLimit, [&] { return (code = Try(operation, request)).has_value(); });
  if (!code) throw TestingError("no ZooKeeper server confirms a write at " + m_hosts);
  return *code;
}

/// Nothing when another try, on another connection, may do better.
std::optional<int> WireSession::Try(std::int32_t operation, const std::string& request) {
  if (m_socket < 0 && !Connect()) return std::nullopt;
  std::string answer;
  if (Exchange(Encode(++m_xid) + Encode(operation) + request, answer) &&
      Decode<std::int32_t>(answer, 0) == m_xid) {
    constexpr std::size_t codeAt = sizeof m_xid + sizeof(std::int64_t);
    const int code = Decode<std::int32_t>(answer, codeAt);
    if (code != ZSESSIONEXPIRED && code != ZSESSIONMOVED && code != ZCONNECTIONLOSS) return code;
  }
  Disconnect();
  return std::nullopt;
}

/// To the next server; and takes up the session, or begins one.
bool WireSession::Connect() {
  const Server& server = m_servers[m_next++ % m_servers.size()];
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(server.host.c_str(), server.port.c_str(), &hints, &found) != 0) return false;
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> address(found, &freeaddrinfo);
  m_socket = socket(address->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  setsockopt(m_socket, SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof kPatience);
  setsockopt(m_socket, SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience);
  constexpr std::int32_t version = 0;
  constexpr std::int64_t seen = 0;  // nothing: so servers that were wiped are as good as any
  constexpr std::size_t sessionAt = sizeof version + sizeof kSessionTimeoutMs;
  constexpr std::size_t passwordAt = sessionAt + sizeof m_session + sizeof(std::int32_t);
  std::string answer;
  if (connect(m_socket, address->ai_addr, address->ai_addrlen) == 0 &&
      Exchange(
          Encode(version) + Encode(seen) + Encode(kSessionTimeoutMs) + Encode(m_session) + Encode(m_password),
          answer)) {
    m_session = Decode<std::int64_t>(answer, sessionAt);  // 0: the one to take up has expired
    m_password = answer.substr(std::min(passwordAt, answer.size()), kPasswordBytes);
    m_password.resize(kPasswordBytes);
    if (m_session != 0) return true;
  }
  Disconnect();
  return false;
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
