// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <mutex>
#include <string>
#include <thread>

#include "zrstl/export.h"

namespace zr::halden::testing {

/// A bad network in front of a server: forwards TCP connections to a loopback port, and offers what networks do to them
/// as verbs, which add up until `Heal`. For an ensemble, one before each server.
///
/// Threads: one of its own, which alone touches connections, and blocks all signals. Verbs may be called from any
/// thread, and return once they are in force, which takes no time to speak of.
/// Ownership: its port and its connections go with the object; the connections are reset. The target need not be
/// there: then connections are closed as soon as they are taken.
/// Errors: the constructor throws TestingError where there is no free port or descriptor. A connection that cannot be
/// forwarded is reset.
/// Memory: what is on its way waits here, so a delayed connection needs its delay times its rate.
class ZR_EXPORT TcpProxy {
 public:
  /// Forwards from a free loopback port, which is taken from here on.
  explicit TcpProxy(std::uint16_t target);
  ~TcpProxy();

  TcpProxy(const TcpProxy&) = delete;
  TcpProxy& operator=(const TcpProxy&) = delete;

  void Cut();     ///< resets every connection; new ones are taken
  void Refuse();  ///< resets every connection, and new ones at once
  /// What arrives is handed on this much later, each way; to the millisecond. The rate is not limited by it. Zero: at
  /// once. It counts for what arrives from now on, and nothing overtakes what came before.
  void Delay(std::chrono::milliseconds each) { Delay(each, each); }
  void Delay(std::chrono::milliseconds toServer, std::chrono::milliseconds toClient);
  /// For each way of each connection. Zero: no limit. Whoever sends more has to wait, as for a full line.
  void Throttle(std::size_t bytesPerSecond);
  /// Connections stay open and new ones are taken, but nothing moves until it is over; then all of it arrives.
  void Stall();
  /// Connections stay open and new ones are taken, but nothing arrives any more, not even their end. Those that lost
  /// something are reset when it is over, as by a router that has forgotten them.
  void HalfOpen();
  void Heal();  ///< ends all of the above; what was cut stays cut

  std::uint16_t Port() const { return m_port; }
  /// "127.0.0.1:<port><chroot>"
  std::string ConnectString(const std::string& chroot = {}) const {
    return "127.0.0.1:" + std::to_string(m_port) + chroot;
  }

 private:
  using Clock = std::chrono::steady_clock;

  struct Weather {
    bool refuse = false;
    bool swallow = false;
    bool stall = false;
    std::array<std::chrono::milliseconds, 2> delay{};  // as Link::ends
    std::size_t bytesPerSecond = 0;                    // 0: no limit
  };
  struct Piece {
    Clock::time_point due;
    std::string bytes;
  };
  struct End {
    int socket = -1;             // -1 once its peer has closed
    std::deque<Piece> incoming;  // on their way to the socket
    std::size_t incomingBytes = 0;
    double allowance = 0;  // bytes that the throttle lets pass now
    Clock::time_point allowedAt = Clock::now();

    bool Full(Clock::time_point now) const;
  };
  struct Link {
    std::array<End, 2> ends;  // the client's, the server's
    bool lost = false;        // something was swallowed
  };

  template <typename Change>
  void Apply(const Change& change);
  void Run();
  bool TakeOver();
  void Await() const;
  void TakeConnection();
  bool Forward(Link& link) const;
  bool Receive(Link& link, std::size_t from) const;
  bool Send(End& end) const;
  static void Reset(Link& link);
  static void Close(Link& link);

  const std::uint16_t m_target;
  int m_listener = -1;
  int m_wakeUp = -1;
  std::uint16_t m_port = 0;

  std::mutex m_mtx;  // guards the five below
  std::condition_variable m_applied;
  Weather m_asked;
  bool m_cutAsked = false;
  bool m_ending = false;
  std::uint64_t m_changesAsked = 0;
  std::uint64_t m_changesApplied = 0;

  Weather m_weather;        // owned by the thread
  std::list<Link> m_links;  // owned by the thread

  std::thread m_thread;
};

}  // namespace zr::halden::testing
