// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "client/watch_budget.h"

#include <gtest/gtest.h>

namespace zr::halden::details {
namespace {

TEST(WatchBudgetTest, HoldsWhatWasAnsweredUntilItsEventHasCome) {
  using Kind = Request::Kind;
  WatchBudget budget;
  const auto path = [](int number) {
    return "/services/orders/" + std::to_string(number) + std::string(80, 'x');
  };
  const auto count = [&](Kind kind, int number, int code) {
    budget.Count({.kind = kind, .path = path(number)}, path(number), code);
  };
  for (int i = 0; i < 20'000; ++i) {
    count(Kind::Get, i, i % 2 == 0 ? ZOK : ZNONODE);  // who finds nothing leaves no watch, but for Exists
    count(Kind::Exists, i, i % 2 == 0 ? ZOK : ZNONODE);
  }
  EXPECT_EQ(budget.Count(), 20'000U);
  EXPECT_TRUE(budget.Exceeded());
  for (int i = 0; i < 20'000; ++i) count(Kind::GetChildren, i, ZOK);
  for (int i = 0; i < 20'000; ++i)
    budget.Uncount(i % 2 == 0 ? ZOO_CHANGED_EVENT : ZOO_CREATED_EVENT, path(i));
  EXPECT_EQ(budget.Count(), 20'000U) << "the lists'";
  EXPECT_TRUE(budget.Exceeded());
  for (int i = 0; i < 20'000; ++i) budget.Uncount(ZOO_CHILD_EVENT, path(i));
  EXPECT_EQ(budget.Count(), 0U);
  EXPECT_FALSE(budget.Exceeded());
}

}  // namespace
}  // namespace zr::halden::details
