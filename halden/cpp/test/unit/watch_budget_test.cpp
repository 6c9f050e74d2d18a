// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "session/watch_budget.h"

#include <gtest/gtest.h>

#include <random>
#include <set>
#include <string>

namespace zr::halden::details {
namespace {

/// Some 1 KB, so that the budget is near its limit with some hundred of them.
std::string Path(int number) {
  return "/" + std::string(1000, 'x') + std::to_string(10'000 + number);
}

TEST(WatchBudgetTest, IsTheSumOfWhatIsWatchedHoweverItCameToBe) {
  constexpr std::size_t bytes = 1010;  // of a path, in the packet
  std::mt19937 random(1);
  WatchBudget budget;
  std::set<int> watched;
  const Request get{.kind = Request::Kind::Get, .path = {}};
  for (int i = 0; i < 20'000; ++i) {
    const int number = static_cast<int>(random() % 1800);
    if (random() % 2 == 0) {
      budget.Count(get, Path(number), ZOK);
      watched.insert(number);
    } else {
      budget.Uncount(ZOO_CHANGED_EVENT, Path(number));
      watched.erase(number);
    }
    ASSERT_EQ(budget.Exceeded(), watched.size() * bytes > 900'000) << i;
  }
}

TEST(WatchBudgetTest, TellsTheKindsOfWatchesApart) {
  WatchBudget budget;
  for (int i = 0; i < 891; ++i) budget.Count({.kind = Request::Kind::GetChildren, .path = {}}, Path(i), ZOK);
  budget.Count({.kind = Request::Kind::Exists, .path = {}}, Path(0), ZNONODE);
  EXPECT_TRUE(budget.Exceeded());
  budget.Count({.kind = Request::Kind::Get, .path = {}}, Path(0), ZNONODE);  // leaves no watch
  budget.Uncount(ZOO_CREATED_EVENT, Path(0));
  EXPECT_FALSE(budget.Exceeded());
  budget.Count({.kind = Request::Kind::Get, .path = {}}, Path(1), ZOK);
  EXPECT_TRUE(budget.Exceeded());
  budget.Uncount(ZOO_CHILD_EVENT, Path(1));
  budget.Uncount(ZOO_DELETED_EVENT, Path(1));
  EXPECT_FALSE(budget.Exceeded());
}

}  // namespace
}  // namespace zr::halden::details
