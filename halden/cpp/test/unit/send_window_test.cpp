// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "client/send_window.h"

#include <gtest/gtest.h>

#include <deque>

namespace zr::halden::details {
namespace {

using namespace std::chrono_literals;

/// A way of a certain length that lets so many answers through a second, one after another.
class SendWindowTest : public ::testing::Test {
 protected:
  /// Requests as many as the window lets, for so long; how many were answered.
  std::size_t Load(Clock::duration length) {
    std::size_t answered = 0;
    for (const auto end = m_now + length; m_now < end; ++answered) {
      for (bool room = m_window.HasRoomForSome(); room; room = m_window.HasRoom()) {
        const auto late = m_jitter * static_cast<int>(m_underWay.size() * 37 % 64) / 64;
        m_free = std::max(m_free, m_now + m_trip + late) + m_each;
        const bool lost = ++m_asked % m_lostEach == 0;  // once: it comes a trip later, and all behind it
        m_due = std::max(m_due, m_free + m_trip * (lost ? 1 : 0));
        m_underWay.push_back({m_window.OnSent(SendWindow::Kind::Data, m_now), m_due});
      }
      m_window.OnUsedUp();
      m_most = std::max(m_most, m_underWay.size());
      m_now = m_underWay.front().second;
      m_window.OnAnswered(m_underWay.front().first, 700, m_now);
      m_underWay.pop_front();
    }
    return answered;
  }

  SendWindow m_window;
  Clock::duration m_trip = 80ms;
  Clock::duration m_jitter = 0ms;
  Clock::duration m_each = 20us;
  Clock::time_point m_now{1h};
  Clock::time_point m_free{};
  Clock::time_point m_due{};
  std::deque<std::pair<SendWindow::Sent, Clock::time_point>> m_underWay;
  std::size_t m_most = 0;
  std::size_t m_asked = 0;
  std::size_t m_lostEach = 1'000'000;
};

TEST_F(SendWindowTest, FillsALongWayWithinAFewTripsThoughItJitters) {
  m_jitter = 20ms;
  Load(5 * m_trip);
  EXPECT_GT(Load(10 * m_trip), 10 * 4000U * 8 / 10);  // 4,000 in each round trip is all that it carries
}

TEST_F(SendWindowTest, IsNotHeldDownByWhatIsSentAgain) {
  m_lostEach = 300;
  Load(10 * m_trip);
  EXPECT_GT(Load(20 * m_trip), 20 * 4000U / 3);
}

TEST_F(SendWindowTest, BelievesALongerTripByAndByAndNoneBehindAWrite) {
  const auto ask = [&](Clock::duration trip, int times) {
    while (times-- > 0)
      m_window.OnAnswered(m_window.OnSent(SendWindow::Kind::Data, m_now), 700, m_now + trip);
    return m_window.Trip();
  };
  EXPECT_EQ(ask(80ms, 1), 80ms);
  EXPECT_LE(ask(1s, 1), 90ms);
  const auto write = m_window.OnSent(SendWindow::Kind::Write, m_now);
  EXPECT_LE(ask(1s, 9), 90ms);
  m_window.OnLost(write);
  EXPECT_GT(ask(160ms, 20), 140ms);
}

TEST_F(SendWindowTest, DoesNotTakeWhatWasHeldUpForTheWay) {
  m_window.OnConnected(m_trip, m_now);
  std::vector<SendWindow::Sent> lists;
  while (m_window.HasRoom()) lists.push_back(m_window.OnSent(SendWindow::Kind::List, m_now));
  m_now += 1s;
  for (const auto& list : lists) m_window.OnAnswered(list, 2000, m_now += 10us);
  int requests = 0;
  while (m_window.HasRoom()) m_window.OnSent(SendWindow::Kind::Data, m_now), ++requests;
  EXPECT_LT(requests, 500);
}

TEST_F(SendWindowTest, KeepsTheLineAtANarrowWayShort) {
  m_each = 3ms;  // 1 Mbit/s
  Load(20s);
  m_lostEach = 50;
  Load(20s);
  EXPECT_LT(m_most * m_each, m_trip + 300ms);
}

TEST_F(SendWindowTest, ShrinksWhenAnswersGetSlowerWithoutGettingMore) {
  Load(2s);
  m_each = 2ms;
  Load(60s);
  m_most = 0;
  Load(5s);
  EXPECT_LT(m_most * m_each, 2 * m_trip + 300ms);
}

}  // namespace
}  // namespace zr::halden::details
