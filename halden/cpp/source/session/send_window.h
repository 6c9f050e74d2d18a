// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "base/clock.h"

namespace zr::halden::details {

/// How many requests a connection should have under way: as many as keep the way full, which are those of one round
/// trip, and a little more. What is beyond that only waits in line, and whatever is asked next waits behind it.
///
/// It goes by rounds: one ends when all that was under way at its beginning is answered. The rate of answers of the best
/// of the last rounds, times the shortest round trip, is what the way holds. A round in which the window was not used up
/// says nothing against a better one before it. Where the first answers come far closer together than a round trip
/// takes, their rate is what the way carries. Else, while the rate still grows, the window is three times what the last
/// round asks for.
///
/// Threads: the connection's.
class SendWindow {
 public:
  /// A request on its way. Answers come in the order of the requests.
  struct Sent {
    Clock::time_point at{};
    bool measures = false;  ///< a read with little before it: how long it takes is the way's length
  };

  SendWindow() = default;
  /// `trip`: of the connection before, if it is known.
  explicit SendWindow(Clock::duration trip) : m_trip(trip) {}

  Sent OnSent(bool read, Clock::time_point now);
  /// `bytes`: of the answer, about.
  void OnAnswered(const Sent& sent, std::size_t bytes, Clock::time_point now);
  /// It will have no answer, or one that says nothing.
  void OnLost() { ++m_answered; }
  /// More was to be sent than the window lets.
  void OnUsedUp() { m_round.usedUp = true; }
  /// The connection is another one, maybe to another server.
  void OnConnected(Clock::duration handshake);

  /// How many more may be sent; none until that is worth sending: requests and answers should come in batches.
  std::size_t Room() const;
  /// The shortest round trip lately; zero before anything is known of it.
  Clock::duration Trip() const { return m_trip; }

 private:
  struct Round {
    Clock::time_point begin{};
    std::uint64_t answered = 0;  // before it
    std::uint64_t end = 0;       // how many are answered at its end
    bool usedUp = false;
  };
  static constexpr std::size_t kFirst = 64;

  std::uint64_t UnderWay() const { return m_answered < m_sent ? m_sent - m_answered : 0; }
  void MeasureTrip(const Sent& sent, Clock::time_point now);
  void EndRound(Clock::time_point now);
  bool TakeRate(double rate, double lasted);
  void Resize(double rate, bool burst);
  double BestRate() const;
  double Slack() const;

  std::uint64_t m_sent = 0;
  std::uint64_t m_answered = 0;
  Clock::duration m_trip{};
  bool m_tripIsGuess = true;  // from the handshake, in which servers also write
  double m_answerBytes = 0;   // on average lately
  Round m_round;
  std::array<double, 8> m_rates{};  // answers a second, of the last rounds that count
  std::size_t m_nextRate = 0;
  double m_grownTo = 0;  // the rate when it last grew by much
  int m_flat = 0;        // rounds since then
  bool m_tried = false;  // a window was used up for a whole round trip
  double m_size = kFirst;
};

}  // namespace zr::halden::details
