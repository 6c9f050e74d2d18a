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

namespace zr::halden::test {

/// A bad network in front of a server: forwards TCP connections to a loopback port, and offers what networks
/// do to them as verbs, which add up until `Heal`.
///
/// Threads: one of its own, which alone touches connections. Verbs may be called from any thread, and return
/// once they are in force.
class TcpProxy {
 public:
  explicit TcpProxy(std::uint16_t target);
  ~TcpProxy();

  TcpProxy(const TcpProxy&) = delete;
  TcpProxy& operator=(const TcpProxy&) = delete;

  void Cut();                                  ///< resets every connection; new ones are taken
  void Refuse();                               ///< resets every connection, and new ones at once
  void Delay(std::chrono::milliseconds each);  ///< each way
  void Throttle(std::size_t bytesPerSecond);   ///< each way of each connection
  /// Connections stay open and new ones are taken, but nothing arrives any more, not even their end. Those
  /// that lost something are reset when it is over, as by a router that has forgotten them.
  void HalfOpen();
  void Heal();

  std::uint16_t Port() const { return m_port; }
  std::string ConnectString(const std::string& chroot = {}) const {
    return "127.0.0.1:" + std::to_string(m_port) + chroot;
  }

 private:
  using Clock = std::chrono::steady_clock;

  struct Weather {
    bool refuse = false;
    bool swallow = false;
    std::chrono::milliseconds delay{0};
    std::size_t bytesPerSecond = 0;  // 0: no limit
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
  };
  struct Link {
    std::array<End, 2> ends;  // the client's, the server's
    bool lost = false;        // something was swallowed
  };

  template <typename Change>
  void Apply(const Change& change);
  void Run();
  bool TakeOver();
  void Await();
  void TakeConnection();
  bool Forward(Link& link);
  bool Receive(Link& link, std::size_t from);
  bool Send(End& end);
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

}  // namespace zr::halden::test
