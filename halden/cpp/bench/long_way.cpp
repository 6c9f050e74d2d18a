// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "long_way.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "loopback.h"

namespace zr::halden::bench {

LongWay::LongWay(std::uint16_t target, const Distance& distance)
    : m_target(target),
      m_distance(distance),
      m_listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)),
      m_wakeUp(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  m_port = testing::BindToFreePort(m_listener);
  Require(m_wakeUp >= 0 && listen(m_listener, SOMAXCONN) == 0, "no way to the server");
  m_thread = std::thread([this] { Run(); });
}

LongWay::~LongWay() {
  m_ending = true;
  eventfd_write(m_wakeUp, 1);
  m_thread.join();
  for (Link& link : m_links) Close(link);
  close(m_listener);
  close(m_wakeUp);
}

void LongWay::Stall(std::chrono::milliseconds length) {
  m_stalledUntil = (Clock::now() + length).time_since_epoch().count();
  eventfd_write(m_wakeUp, 1);
}

void LongWay::Run() {
  prctl(PR_SET_TIMERSLACK, 1000);  // nanoseconds: a trip of a millisecond is to be one
  while (!m_ending) Await(Move());
}

/// Moves what there is to move; until when nothing else is due.
Clock::time_point LongWay::Move() {
  TakeConnection();
  const Clock::time_point stalled{Clock::duration(m_stalledUntil)};
  auto next = Clock::time_point::max();
  std::erase_if(m_links, [&](Link& link) {
    bool good = true;
    for (std::size_t i = 0; i < link.size(); ++i) good = good && Take(link[i], m_free[i]);
    const auto now = Clock::now();
    for (Lane& lane : link) {
      good = good && (now < stalled || Give(lane, now));
      if (!lane.pieces.empty() && !lane.full)
        next = std::min(next, std::max(lane.pieces.front().due, stalled));
    }
    if (!good) Close(link);
    return !good;
  });
  return next;
}

/// False after an error.
bool LongWay::Take(Lane& lane, Clock::time_point& free) const {
  const std::size_t most =
      m_distance.bytesPerSecond > 0 ? 1448 : 16384;  // a narrow way takes packet by packet
  while (!lane.ended) {
    std::string bytes(most, '\0');
    const ssize_t got = recv(lane.from, bytes.data(), bytes.size(), 0);
    if (got < 0) return errno == EAGAIN || errno == EINTR;
    bytes.resize(static_cast<std::size_t>(got));
    lane.ended = got == 0;
    auto due = Clock::now();
    if (m_distance.bytesPerSecond > 0) {
      const std::chrono::duration<double> takes(static_cast<double>(got) / m_distance.bytesPerSecond);
      due = free = std::max(free, due) + std::chrono::duration_cast<Clock::duration>(takes);
    }
    due += m_distance.trip / 2;
    if (m_distance.jitter.count() > 0) due += m_distance.jitter * (std::rand() % 1024) / 1024;
    if (m_distance.loss > 0 && std::rand() < m_distance.loss * RAND_MAX) due += m_distance.trip;
    if (!lane.pieces.empty()) due = std::max(due, lane.pieces.back().due);
    lane.pieces.push_back({due, std::move(bytes)});
  }
  return true;
}

/// False at the end, and after an error.
bool LongWay::Give(Lane& lane, Clock::time_point now) {
  lane.full = false;
  while (!lane.pieces.empty() && lane.pieces.front().due <= now) {
    std::string& bytes = lane.pieces.front().bytes;
    if (bytes.empty()) return false;
    const ssize_t sent = send(lane.to, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    lane.full = sent < 0 && (errno == EAGAIN || errno == ENOTCONN);
    if (sent < 0) return lane.full || errno == EINTR;
    bytes.erase(0, static_cast<std::size_t>(sent));
    if (bytes.empty()) lane.pieces.pop_front();
  }
  return true;
}

void LongWay::TakeConnection() {
  const int client = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (client < 0) return;
  const int server = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = testing::Loopback(m_target);
  const bool good = connect(server, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  fcntl(server, F_SETFL, O_NONBLOCK);
  const int on = 1;
  for (const int end : {client, server}) setsockopt(end, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  Link link{Lane{client, server}, Lane{server, client}};
  good ? m_links.push_back(std::move(link)) : Close(link);
}

void LongWay::Await(Clock::time_point until) {
  std::vector<pollfd> sockets{{m_wakeUp, POLLIN, 0}, {m_listener, POLLIN, 0}};
  for (const Link& link : m_links) {
    for (const Lane& lane : link) {
      if (!lane.ended) sockets.push_back({lane.from, POLLIN, 0});
      if (lane.full) sockets.push_back({lane.to, POLLOUT, 0});
    }
  }
  const auto left = std::max<Clock::duration>(until - Clock::now(), Clock::duration::zero());
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
  const timespec wait{seconds.count(), std::chrono::nanoseconds(left - seconds).count()};
  ppoll(sockets.data(), sockets.size(), until == Clock::time_point::max() ? nullptr : &wait, nullptr);
  eventfd_t ignored = 0;
  eventfd_read(m_wakeUp, &ignored);
}

void LongWay::Close(Link& link) {
  close(link[0].from);
  close(link[0].to);
}

}  // namespace zr::halden::bench
