// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "task_thread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <vector>

#include "logger/sink.h"

namespace zr::halden::details {
namespace {

using ::testing::ElementsAre;

constexpr std::chrono::seconds kLimit{20};

TEST(TaskThreadTest, TasksRunInOrderAndTimersWhenDue) {
  TaskThread thread("test");
  std::vector<int> ran;
  std::promise<void> last;
  thread.PostAfter(std::chrono::milliseconds(20), [&] {
    ran.push_back(3);
    last.set_value();
  });
  thread.PostAfter(std::chrono::milliseconds(5), [&] { ran.push_back(2); });
  thread.Post([&] { ran.push_back(1); });
  ASSERT_EQ(last.get_future().wait_for(kLimit), std::future_status::ready);
  EXPECT_THAT(ran, ElementsAre(1, 2, 3));
}

TEST(TaskThreadTest, ItMayBeDestroyedByItsOwnTaskAndStillRunsWhatWasPosted) {
  auto thread = std::make_unique<TaskThread>("test");
  std::promise<void> posted;
  std::promise<void> last;
  std::shared_future<void> go = posted.get_future().share();
  thread->Post([&thread, go] {
    go.wait();
    thread.reset();
  });
  thread->Post([&last] { last.set_value(); });
  posted.set_value();
  EXPECT_EQ(last.get_future().wait_for(kLimit), std::future_status::ready);
}

}  // namespace
}  // namespace zr::halden::details
