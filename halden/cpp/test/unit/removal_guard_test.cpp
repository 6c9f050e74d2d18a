// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "model/removal_guard.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

namespace zr::halden::details {
namespace {

using std::chrono::milliseconds;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr milliseconds kGrace{5000};

class RemovalGuardTest : public ::testing::Test {
 protected:
  /// Removes so many, `pause` apart; the number of those that are to wait.
  std::size_t Remove(std::size_t count, std::size_t present, milliseconds pause = milliseconds(1)) {
    std::size_t waiting = 0;
    for (std::size_t i = 0; i < count; ++i, m_now += pause) {
      m_ids.push_back(MakeServiceId());
      if (m_guard.Hold(m_ids.back(), m_now, present - i)) ++waiting;
    }
    return waiting;
  }

  std::vector<ServiceId> DueAfter(milliseconds time) { return m_guard.Due(m_now += time); }

  RemovalGuard m_guard{{0.5, kGrace}};
  RemovalGuard::TimePoint m_now{};
  std::vector<ServiceId> m_ids;
};

TEST_F(RemovalGuardTest, AServiceOfThreeKeepsAllThatDisappearAndLosesOneThatEnds) {
  EXPECT_EQ(Remove(2, 2), 0U) << "waits although no mass can come of it";
  m_now += milliseconds(1000);
  EXPECT_EQ(Remove(1, 3), 1U);
  EXPECT_THAT(DueAfter(milliseconds(200)), IsEmpty());
  EXPECT_THAT(DueAfter(milliseconds(51)), SizeIs(1));
  m_now += milliseconds(1000);
  EXPECT_EQ(Remove(3, 3), 3U);
  EXPECT_THAT(DueAfter(kGrace - milliseconds(100)), IsEmpty());
  EXPECT_THAT(DueAfter(milliseconds(100)), SizeIs(3));
  RemovalGuard forEver({0.5, milliseconds::max(), 1});
  EXPECT_TRUE(forEver.Hold(m_ids[0], m_now, 1)) << "one of one is a mass, for who says so";
  EXPECT_THAT(forEver.Due(*forEver.NextDue() - std::chrono::hours(1)), IsEmpty());
  EXPECT_GT(*forEver.NextDue(), m_now + std::chrono::years(50));
  EXPECT_THROW(Check(MassRemovalGuard{0.5, kGrace, 0}), std::invalid_argument);
  EXPECT_THROW(Check(MassRemovalGuard{1, kGrace}), std::invalid_argument);
}

TEST_F(RemovalGuardTest, AFewThatLeaveTogetherWaitUntilItIsQuietOrASecondOld) {
  // Half of them is not more than half; and a steady trickle keeps nobody waiting beyond a second.
  EXPECT_EQ(Remove(10, 20, milliseconds(95)), 9U);
  EXPECT_THAT(DueAfter(milliseconds(150)), SizeIs(1)) << "the one that is a second old";
}

TEST_F(RemovalGuardTest, AMassWaitsForTheGracePeriodAndWhoComesBackIsForgotten) {
  EXPECT_EQ(Remove(15, 20), 14U);
  EXPECT_THAT(DueAfter(kGrace - milliseconds(100)), IsEmpty());
  for (int i = 5; i < 15; ++i) m_guard.Forget(m_ids[static_cast<std::size_t>(i)]);
  // One that leaves again has its time anew, from when it left again; alone in its second it has none.
  EXPECT_FALSE(m_guard.Hold(m_ids[7], m_now, 15));
  EXPECT_TRUE(m_guard.Hold(m_ids[8], m_now, 14));
  EXPECT_THAT(m_guard.Due(m_now + milliseconds(100)), SizeIs(4));
  EXPECT_THAT(m_guard.Due(m_now + milliseconds(300)), ::testing::ElementsAre(m_ids[8]));
  EXPECT_EQ(m_guard.NextDue(), std::nullopt);
}

}  // namespace
}  // namespace zr::halden::details
