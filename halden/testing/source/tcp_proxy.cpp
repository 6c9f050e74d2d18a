// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "halden/testing/tcp_proxy.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "loopback.h"

namespace zr::halden::testing {

namespace {

constexpr std::size_t kMaxQueued = 1U << 20U;   // that the receiver could have: then the sender has to wait
constexpr std::chrono::milliseconds kPause{2};  // between looks at what is due and cannot be sent yet

}  // namespace

TcpProxy::TcpProxy(std::uint16_t target)
    : m_target(target),
      m_listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)),
      m_wakeUp(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  m_port = BindToFreePort(m_listener);
  if (m_wakeUp < 0 || listen(m_listener, SOMAXCONN) != 0) Fail("a proxy cannot listen");
  m_thread = std::thread([this] { Run(); });
}

TcpProxy::~TcpProxy() {
  Apply([this] { m_ending = true; });
  m_thread.join();
  close(m_listener);
  close(m_wakeUp);
}

void TcpProxy::Cut() {
  Apply([this] { m_cutAsked = true; });
}

void TcpProxy::Refuse() {
  Apply([this] { m_asked.refuse = m_cutAsked = true; });
}

void TcpProxy::Delay(std::chrono::milliseconds toServer, std::chrono::milliseconds toClient) {
  Apply([&] { m_asked.delay = {toClient, toServer}; });
}

void TcpProxy::Throttle(std::size_t bytesPerSecond) {
  Apply([this, bytesPerSecond] { m_asked.bytesPerSecond = bytesPerSecond; });
}

void TcpProxy::Stall() {
  Apply([this] { m_asked.stall = true; });
}

void TcpProxy::HalfOpen() {
  Apply([this] { m_asked.swallow = true; });
}

void TcpProxy::Heal() {
  Apply([this] { m_asked = {}; });
}

template <typename Change>
void TcpProxy::Apply(const Change& change) {
  std::unique_lock lock(m_mtx);
  change();
  const std::uint64_t mine = ++m_changesAsked;
  eventfd_write(m_wakeUp, 1);
  m_applied.wait(lock, [&] { return m_changesApplied >= mine; });
}

void TcpProxy::Run() {
  BlockSignals();
  do {
    Await();
  } while (TakeOver());
}

/// Puts in force what the verbs ask for, then moves what is there to move; false at the end.
bool TcpProxy::TakeOver() {
  eventfd_t ignored = 0;
  eventfd_read(m_wakeUp, &ignored);
  bool ending = false;
  {
    const std::lock_guard lock(m_mtx);
    ending = m_ending;
    const bool cut = std::exchange(m_cutAsked, false) || ending;
    m_weather = m_asked;
    std::erase_if(m_links, [&](Link& link) {
      if (!cut && (m_weather.swallow || !link.lost)) return false;
      Reset(link);
      return true;
    });
    m_changesApplied = m_changesAsked;
    m_applied.notify_all();
  }
  TakeConnection();
  std::erase_if(m_links, [this](Link& link) { return !Forward(link); });
  return !ending;
}

/// What is not due yet is on its way, however much it is.
bool TcpProxy::End::Full(Clock::time_point now) const {
  return incomingBytes >= kMaxQueued && incoming.front().due <= now;
}

/// Until there is something to do.
void TcpProxy::Await() const {
  std::vector<pollfd> sockets{{m_wakeUp, POLLIN, 0}, {m_listener, POLLIN, 0}};
  const auto now = Clock::now();
  auto next = Clock::time_point::max();
  for (const Link& link : m_links) {
    for (std::size_t i = 0; i < 2; ++i) {
      const End& other = link.ends[1 - i];
      const bool held = m_weather.stall || (other.Full(now) && !m_weather.swallow);
      sockets.push_back({held ? -1 : link.ends[i].socket, POLLIN, 0});
      if (!other.incoming.empty()) next = std::min(next, std::max(other.incoming.front().due, now + kPause));
    }
  }
  const bool idle = next == Clock::time_point::max() || m_weather.swallow || m_weather.stall;
  const auto wait = std::chrono::ceil<std::chrono::milliseconds>(next - now);
  poll(sockets.data(), sockets.size(), idle ? -1 : static_cast<int>(wait.count()));
}

void TcpProxy::TakeConnection() {
  Link link;
  link.ends[0].socket = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (link.ends[0].socket < 0) return;
  if (m_weather.refuse) return Reset(link);
  link.ends[1].socket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const sockaddr_in address = Loopback(m_target);
  // Does not wait, for a frozen server's sake; a failure shows at the first use.
  if (connect(link.ends[1].socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
      errno != EINPROGRESS) {
    return Reset(link);
  }
  m_links.push_back(std::move(link));
}

/// False when the link has come to its end.
bool TcpProxy::Forward(Link& link) const {
  if (m_weather.stall) return true;
  auto& [client, server] = link.ends;
  bool good = Receive(link, 0) && Receive(link, 1);
  if (good && m_weather.swallow) return true;
  good = good && Send(client) && Send(server);
  // What was sent before an end still arrives; what comes the other way has nowhere to go.
  const auto isIdle = [](const End& end) { return end.socket < 0 || end.incomingBytes == 0; };
  if (good && (client.socket >= 0 || !isIdle(server)) && (server.socket >= 0 || !isIdle(client))) return true;
  good ? Close(link) : Reset(link);
  return false;
}

/// Takes what has come from one end on its way to the other, not all at once where that is much; false after an
/// error.
bool TcpProxy::Receive(Link& link, std::size_t from) const {
  End& end = link.ends[from];
  End& other = link.ends[1 - from];
  std::array<char, 16384> buffer{};
  const auto now = Clock::now();
  for (std::size_t taken = 0; end.socket >= 0 && taken < kMaxQueued;) {
    if (other.Full(now) && !m_weather.swallow) return true;
    const ssize_t got = recv(end.socket, buffer.data(), buffer.size(), 0);
    if (got < 0) return errno == EAGAIN || errno == EINTR;
    const auto size = static_cast<std::size_t>(got);
    taken += size;
    if (got == 0) close(std::exchange(end.socket, -1));
    if (m_weather.swallow) {
      link.lost = true;
    } else if (got > 0) {
      other.incoming.push_back({now + m_weather.delay[1 - from], std::string(buffer.data(), size)});
      other.incomingBytes += size;
    }
  }
  return true;
}

/// Sends what is due and what the throttle lets pass; false after an error.
bool TcpProxy::Send(End& end) const {
  const auto now = Clock::now();
  const auto rate = static_cast<double>(m_weather.bytesPerSecond);
  const double passed = std::chrono::duration<double>(now - std::exchange(end.allowedAt, now)).count();
  end.allowance = std::min(end.allowance + rate * passed, rate / 10);
  while (end.socket >= 0 && !end.incoming.empty() && end.incoming.front().due <= now) {
    std::string& bytes = end.incoming.front().bytes;
    const auto size =
        rate == 0 ? bytes.size() : std::min(bytes.size(), static_cast<std::size_t>(end.allowance));
    if (size == 0) return true;
    const ssize_t sent = send(end.socket, bytes.data(), size, MSG_NOSIGNAL);
    if (sent < 0) return errno == EAGAIN || errno == EINTR || errno == ENOTCONN;
    end.allowance -= static_cast<double>(sent);
    end.incomingBytes -= static_cast<std::size_t>(sent);
    bytes.erase(0, static_cast<std::size_t>(sent));
    if (bytes.empty()) end.incoming.pop_front();
  }
  return true;
}

void TcpProxy::Reset(Link& link) {
  const linger atOnce{1, 0};
  for (const End& end : link.ends) setsockopt(end.socket, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
  Close(link);
}

void TcpProxy::Close(Link& link) {
  for (End& end : link.ends) {
    if (end.socket >= 0) close(std::exchange(end.socket, -1));
  }
}

}  // namespace zr::halden::testing
