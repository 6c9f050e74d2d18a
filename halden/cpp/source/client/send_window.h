// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

#include "base/clock.h"

namespace zr::halden::details {

/// How much a connection should have under way, in bytes of answers: as much as keeps the way full, which is that of one
/// round trip, and a little more. What is beyond that only waits in line, and whatever is asked next waits behind it.
/// To an answer's bytes comes a fixed number for the time that it takes whatever its length: near by that is what a
/// rate is made of.
///
/// It goes by rounds: one ends when all that was under way at its first answer is answered. The best rate of the last
/// rounds, times the shortest round trip, is what the way holds. A round in which the window was not used up says
/// nothing against a better one before it. Answers that come close together tell the rate of a way that was idle before
/// them. What was held up comes close together, too: so the first of them must not have taken much longer than the way
/// is, and once there are rounds enough they say how much more a run can mean.
///
/// Threads: the connection's.
class SendWindow {
 public:
  /// What is asked for: how much will come is known from what came for its like. The lists of partitions are alike, and
  /// so are instances; what else is read is not.
  enum class Kind : std::uint8_t { List, Data, Other, Write };

  /// A request on its way. Answers come in the order of the requests.
  struct Sent {
    Clock::time_point at{};
    double expected = 0;  ///< bytes
    Kind kind = Kind::Data;
    bool measures = false;  ///< a read behind few others and no write: it takes as long as the way
  };

  SendWindow() = default;
  /// `trip`: of the connection before, if it is known.
  explicit SendWindow(Clock::duration trip) : m_trip(trip) {}

  Sent OnSent(Kind kind, Clock::time_point now);
  /// `bytes`: of the answer, about, with the fixed number.
  void OnAnswered(const Sent& sent, std::size_t bytes, Clock::time_point now);
  /// It will have no answer, or one that says nothing.
  void OnLost(const Sent& sent);
  /// More was to be sent than the window lets.
  void OnUsedUp() { m_round.usedUp = true; }
  /// The connection is another one, maybe to another server.
  void OnConnected(Clock::duration handshake, Clock::time_point now);

  /// There is room for another.
  bool HasRoom() const { return Room() > 0; }
  /// There is so much that it is worth sending: requests and answers should come in batches.
  bool HasRoomForSome() const;
  /// The shortest round trip lately; zero before anything is known of it.
  Clock::duration Trip() const { return m_trip; }

 private:
  struct Round {
    Clock::time_point begin{};
    std::uint64_t answered = 0;  // before it
    std::uint64_t end = 0;       // how many are answered at its end; zero before the first
    double bytes = 0;            // behind the first
    double runRate = 0;          // of the best run in it
    bool usedUp = false;
  };
  struct Run {  // of answers, one close behind the other
    Clock::time_point begin{};
    Clock::time_point last{};
    std::uint64_t answers = 0;  // none: there is no run
    double bytes = 0;           // behind the first
  };

  std::uint64_t UnderWay() const { return m_answered < m_sent ? m_sent - m_answered : 0; }
  double Room() const;
  void MeasureTrip(const Sent& sent, Clock::time_point now);
  void FollowRun(const Sent& sent, double bytes, Clock::time_point now);
  void EndRun();
  void CountAnswer(double bytes, Clock::time_point now);
  void EndRound(Clock::time_point now);
  void TakeRate(double rate, double lasted);
  double BestRate() const;
  double Slack() const;

  std::uint64_t m_sent = 0;
  std::uint64_t m_answered = 0;
  std::uint64_t m_writes = 0;                         // under way
  double m_expected = 0;                              // bytes under way
  std::array<double, 4> m_usual{600, 600, 600, 400};  // bytes of an answer of each kind lately
  std::array<std::uint64_t, 4> m_known{};             // answers of each kind
  bool m_asksForData = false;
  Clock::duration m_trip{};  // at first that of the handshake, in which servers also write
  Round m_round;
  Run m_run;
  std::array<double, 8> m_rates{};  // bytes a second, of the last rounds that count
  std::size_t m_nextRate = 0;
  double m_size = 64.0 * 1024;
};

}  // namespace zr::halden::details
