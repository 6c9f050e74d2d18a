// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "base/task_thread.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>

namespace zr::halden::details {
namespace {

constexpr std::chrono::seconds kLimit{20};

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
