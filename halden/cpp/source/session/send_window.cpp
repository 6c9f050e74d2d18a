// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "session/send_window.h"

#include <algorithm>

namespace zr::halden::details {

namespace {

// Of a narrow way: what waits there in line for no good. A write that comes behind it waits for so much.
constexpr double kSlackBytes = 24.0 * 1024;
// Of a fast one: for so many seconds servers and we are busy with what has arrived.
constexpr double kSlackTime = 0.006;
// The window grows by no more at a time, whatever a round seems to say.
constexpr double kMostGrowth = 16;
constexpr double kLeast = 16;
constexpr double kMost = 20'000;
// A handful of answers says nothing of a rate, and what is read in one go nothing of time.
constexpr std::uint64_t kRoundOfSome = 16;
constexpr std::uint64_t kBurst = 48;
constexpr double kShortestRound = 0.001;
constexpr double kLongRound = 0.020;
// Requests before another that cost it no time worth counting.
constexpr std::uint64_t kFew = 4;
constexpr int kRoundsToBeSure = 3;

double Seconds(Clock::duration time) {
  return std::chrono::duration<double>(time).count();
}

}  // namespace

SendWindow::Sent SendWindow::OnSent(bool read, Clock::time_point now) {
  if (UnderWay() == 0) m_round = {now, m_answered, m_sent + 1, false};
  ++m_sent;
  return {now, read && UnderWay() <= kFew};
}

void SendWindow::OnAnswered(const Sent& sent, std::size_t bytes, Clock::time_point now) {
  ++m_answered;
  const auto size = static_cast<double>(bytes);
  m_answerBytes += (size - m_answerBytes) / (m_answerBytes == 0 ? 1 : 16);
  MeasureTrip(sent, now);
  if (m_answered >= m_round.end) EndRound(now);
}

/// A shorter one is believed at once. A longer one only where nothing was in line before it, and by and by.
void SendWindow::MeasureTrip(const Sent& sent, Clock::time_point now) {
  const auto trip = now - sent.at;
  if (trip < m_trip || (m_tripIsGuess && sent.measures)) {
    m_trip = trip;
    m_tripIsGuess = false;
  } else if (sent.measures) {
    m_trip += (trip - m_trip) / 8;
  }
}

/// Answers that come together later on have only been held up somewhere.
void SendWindow::EndRound(Clock::time_point now) {
  const auto answers = m_answered - m_round.answered;
  const double lasted = std::max(Seconds(now - m_round.begin), kShortestRound);
  const bool burst = lasted < Seconds(m_trip) / 2;
  const bool counts = burst ? answers >= kBurst && !m_tried : answers >= kRoundOfSome;
  if (counts) {
    m_tried = m_tried || (!burst && m_round.usedUp);
    const double rate = static_cast<double>(answers) / lasted;
    if (TakeRate(rate, lasted)) Resize(rate, burst);
  }
  m_round = {now, m_answered, std::max(m_sent, m_answered + 1), false};
}

/// False where it says nothing. Of a round that took long, since answers have become slow, it makes others forgotten.
bool SendWindow::TakeRate(double rate, double lasted) {
  if (!m_round.usedUp && rate < BestRate()) return false;
  auto times = static_cast<std::size_t>(lasted / std::max(2 * Seconds(m_trip), kLongRound));
  for (times = std::clamp<std::size_t>(times, 1, m_rates.size()); times > 0; --times) {
    m_rates[m_nextRate++ % m_rates.size()] = rate;
  }
  const double best = BestRate();
  if (best > 1.25 * m_grownTo) {
    m_grownTo = best;
    m_flat = 0;
  } else {
    ++m_flat;
  }
  if (m_flat > static_cast<int>(m_rates.size())) m_grownTo = best;  // it may have shrunk, and grow again
  return true;
}

/// `burst`: the answers came in far less than a round trip, so that their rate is that of the way; else it may be that
/// of the window alone, and more may be had.
void SendWindow::Resize(double rate, bool burst) {
  const bool growing = !burst && m_flat < kRoundsToBeSure;
  const double sought = std::max(1.25 * BestRate(), growing ? 3 * rate : 0);
  const double wanted = sought * Seconds(m_trip) + Slack();
  m_size = std::clamp(std::min(wanted, kMostGrowth * m_size), kLeast, kMost);
}

double SendWindow::BestRate() const {
  return *std::max_element(m_rates.begin(), m_rates.end());
}

double SendWindow::Slack() const {
  return std::max(kSlackBytes / std::max(m_answerBytes, 1.0), kSlackTime * BestRate());
}

void SendWindow::OnConnected(Clock::duration handshake) {
  SendWindow anew(m_tripIsGuess ? handshake : std::min(handshake, m_trip));
  anew.m_answerBytes = m_answerBytes;
  anew.m_sent = anew.m_round.end = m_sent;
  anew.m_answered = m_answered;
  *this = anew;
}

std::size_t SendWindow::Room() const {
  const double room = m_size - static_cast<double>(UnderWay());
  const double worthIt = std::min(m_size, Slack()) / 2;
  return room < std::max(worthIt, 1.0) ? 0 : static_cast<std::size_t>(room);
}

}  // namespace zr::halden::details
