// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "client/send_window.h"

#include <algorithm>
#include <utility>

namespace zr::halden::details {

namespace {

// The slack of a narrow way: it only waits in line there, and a write that comes behind it waits for so much.
constexpr double kSlackBytes = 48.0 * 1024;
// At first. Servers that are near are seldom at the end of a narrow way: all lists of a service may go at once.
constexpr double kFirst = 64.0 * 1024;
constexpr double kFirstNear = 160.0 * 1024;
constexpr std::chrono::milliseconds kNear{20};
// The slack of a fast way, in seconds: so long servers and we are busy with what has arrived.
constexpr double kSlackTime = 0.003;
// More than what the way holds, if all answers took the shortest time: on many ways some take longer.
constexpr double kGain = 1.5;
constexpr double kRunGain = 1.25;
// Some of what was held up passes for a run: once rounds tell enough, no run is believed that says much more than they.
constexpr double kMostOfRun = 2.25;
// The window grows by no more at a time, whatever a round seems to say.
constexpr double kMostGrowth = 16;
constexpr double kMost = 16e6;
constexpr std::uint64_t kLeast = 16;  // requests
// A handful of answers says nothing of a rate.
constexpr std::uint64_t kRoundOfSome = 16;
constexpr std::uint64_t kLeastRun = 32;
// What comes within so short a time has come as fast as threads were scheduled, and not as fast as it can.
constexpr std::chrono::milliseconds kShortestRound{4};
constexpr double kShortestRun = 0.003;
constexpr double kLongRound = 0.020;
// So few requests before another cost it no time worth counting.
constexpr std::uint64_t kFew = 4;
// What takes longer has been frozen, as a whole process or a server may be: a silent server is waited for by the trip.
constexpr std::chrono::seconds kLongestTrip{2};
// Before so many answers of a kind have come, it is not known how long they are, and no more than so many are asked for.
constexpr std::uint64_t kToKnow = 16;
constexpr std::uint64_t kBeforeKnown = 1024;

double Seconds(Clock::duration time) {
  return std::chrono::duration<double>(time).count();
}

}  // namespace

SendWindow::Sent SendWindow::OnSent(Kind kind, Clock::time_point now) {
  if (UnderWay() == 0) {
    m_round = {.begin = now, .answered = m_answered};
    m_run = {};
  }
  ++m_sent;
  m_asksForData = m_asksForData || kind == Kind::Data;
  if (kind == Kind::Write) ++m_writes;
  const double expected = m_usual[static_cast<std::size_t>(kind)];
  m_expected += expected;
  return {now, expected, kind, m_writes == 0 && UnderWay() <= kFew};
}

void SendWindow::OnAnswered(const Sent& sent, std::size_t bytes, Clock::time_point now) {
  OnLost(sent);
  const auto size = static_cast<double>(bytes);
  double& usual = m_usual[static_cast<std::size_t>(sent.kind)];
  usual += (size - usual) / 8;
  ++m_known[static_cast<std::size_t>(sent.kind)];
  MeasureTrip(sent, now);
  FollowRun(sent, size, now);
  CountAnswer(size, now);
}

void SendWindow::OnLost(const Sent& sent) {
  ++m_answered;
  if (sent.kind == Kind::Write && m_writes > 0) --m_writes;
  m_expected = UnderWay() == 0 ? 0 : m_expected - sent.expected;
}

/// A shorter one is believed at once. A longer one only where nothing was in line before it, and by and by: something may
/// have held it up. Too long a trip is mended by the next answer, too short a one by few.
void SendWindow::MeasureTrip(const Sent& sent, Clock::time_point now) {
  const auto trip = std::min<Clock::duration>(now - sent.at, kLongestTrip);
  if (trip < m_trip || m_trip == Clock::duration::zero()) {
    m_trip = trip;
  } else if (sent.measures) {
    m_trip += std::min(trip - m_trip, m_trip) / 8;
  }
}

/// A silence in it means that something was held up, and what comes then has waited for that.
void SendWindow::FollowRun(const Sent& sent, double bytes, Clock::time_point now) {
  if (now - m_run.last > m_trip / 4) EndRun();
  if (m_run.answers > 0) {
    m_run.bytes += bytes;
  } else if (now - sent.at <= m_trip * 3 / 2) {
    m_run = {.begin = now, .last = now};
  } else {
    return;
  }
  ++m_run.answers;
  m_run.last = now;
}

void SendWindow::EndRun() {
  const Run run = std::exchange(m_run, {});
  if (run.answers < kLeastRun) return;
  const double lasted = std::max(Seconds(run.last - run.begin), kShortestRun);
  m_round.runRate = std::max(m_round.runRate, run.bytes / lasted);
}

void SendWindow::CountAnswer(double bytes, Clock::time_point now) {
  if (m_round.end == 0) {
    m_round.end = std::max(m_sent, m_answered + 1);
  } else {
    m_round.bytes += bytes;
  }
  if (m_answered < m_round.end || now - m_round.begin < kShortestRound) return;
  EndRound(now);
  m_round = {.begin = now, .answered = m_answered};
}

void SendWindow::EndRound(Clock::time_point now) {
  EndRun();
  if (m_answered - m_round.answered < kRoundOfSome) return;
  const double lasted = Seconds(now - m_round.begin);
  const double rate = m_round.bytes / lasted;
  if (!m_round.usedUp && rate < BestRate()) return;
  TakeRate(rate, lasted);
  const double run =
      m_nextRate < m_rates.size() ? m_round.runRate : std::min(m_round.runRate, kMostOfRun * BestRate());
  const double sought = std::max(kGain * BestRate(), kRunGain * run);
  const double grown = kMostGrowth * std::max(m_size, m_round.bytes);
  m_size = std::min({sought * Seconds(m_trip) + Slack(), grown, kMost});
}

/// Of a round that took long, since answers have become slow, it makes others forgotten.
void SendWindow::TakeRate(double rate, double lasted) {
  auto times = static_cast<std::size_t>(lasted / std::max(2 * Seconds(m_trip), kLongRound));
  for (times = std::clamp<std::size_t>(times, 1, m_rates.size()); times > 0; --times) {
    m_rates[m_nextRate++ % m_rates.size()] = rate;
  }
}

double SendWindow::BestRate() const {
  return *std::max_element(m_rates.begin(), m_rates.end());
}

double SendWindow::Slack() const {
  return std::max(kSlackBytes, kSlackTime * BestRate());
}

void SendWindow::OnConnected(Clock::duration handshake, Clock::time_point now) {
  SendWindow anew(std::min<Clock::duration>(handshake, kLongestTrip));
  anew.m_known = m_known;
  anew.m_round = {.begin = now, .answered = m_answered};
  anew.m_size = anew.m_trip < kNear ? kFirstNear : kFirst;
  anew.m_usual = m_usual;
  anew.m_sent = m_sent;
  anew.m_answered = m_answered;
  anew.m_writes = m_writes;
  anew.m_expected = m_expected;
  *this = anew;
}

/// Some requests are always let through: one answer may be larger than any window.
double SendWindow::Room() const {
  if (UnderWay() < kLeast) return kMost;
  const bool unknown = m_known[static_cast<std::size_t>(Kind::Data)] < kToKnow && m_asksForData;
  return unknown && UnderWay() >= kBeforeKnown ? 0 : m_size - m_expected;
}

bool SendWindow::HasRoomForSome() const {
  return Room() >= std::min(m_size, Slack()) / 2;
}

}  // namespace zr::halden::details
