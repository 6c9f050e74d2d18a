// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <poll.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <string>
#include <thread>
#include <vector>

#include "bench.h"

namespace zr::halden::bench {

/// What lies between a client and a far server.
struct Distance {
  std::chrono::microseconds trip{0};  ///< there and back
  double bytesPerSecond = 0;          ///< each way of all connections together; 0: no limit
  std::chrono::microseconds jitter{
      0};  ///< at most so much later, each way; what was sent first arrives first
  double loss =
      0;  ///< share of packets that are lost: they arrive a trip later, sent again, and hold up all behind
};

/// A long way to a server on a loopback port: all that is sent arrives later, as much as wanted at a time. Only the
/// connecting itself takes no time.
///
/// Threads: one of its own, which alone touches connections; `Stall` from any.
class LongWay {
 public:
  LongWay(std::uint16_t target, const Distance& distance);
  ~LongWay();

  LongWay(const LongWay&) = delete;
  LongWay& operator=(const LongWay&) = delete;

  std::string ConnectString() const { return "127.0.0.1:" + std::to_string(m_port); }
  /// From now on for so long nothing arrives.
  void Stall(std::chrono::milliseconds length);

 private:
  struct Piece {
    Clock::time_point due;
    std::string bytes;  // none: the end
  };
  struct Lane {
    int from;
    int to;
    std::deque<Piece> pieces{};
    bool ended = false;
    bool full = false;  // `to` takes no more for now
  };
  using Link = std::array<Lane, 2>;

  void Run();
  Clock::time_point Move();
  bool Take(Lane& lane, Clock::time_point& free) const;
  static bool Give(Lane& lane, Clock::time_point now);
  void TakeConnection();
  void Await(Clock::time_point until);
  static void Close(Link& link);

  const std::uint16_t m_target;
  const Distance m_distance;
  const int m_listener;
  const int m_wakeUp;
  std::uint16_t m_port = 0;
  std::atomic<bool> m_ending{false};
  std::atomic<Clock::rep> m_stalledUntil{0};

  // The thread's.
  std::list<Link> m_links;
  std::array<Clock::time_point, 2> m_free{};  // when the last byte of each way has left
  std::thread m_thread;
};

}  // namespace zr::halden::bench
