// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <utility>

#include "halden/testing/poll.h"

namespace zr::halden::test {

using namespace halden::testing;

/// For the library's own waits: what comes true while nobody is woken would pass as well, at the end of a limit.
inline constexpr std::chrono::hours kUnlessWoken{1};

/// As Poll with the usual limit, for ASSERT_TRUE and EXPECT_TRUE; `describe` returns what is there instead.
template <typename Condition, typename Describe>
::testing::AssertionResult Eventually(Condition&& condition, Describe&& describe) {
  if (Poll(kLimit, std::forward<Condition>(condition))) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "not within " << kLimit.count() << " s; instead: " << describe();
}

template <typename Condition>
::testing::AssertionResult Eventually(Condition&& condition) {
  return Eventually(std::forward<Condition>(condition), [] { return std::string("it never came true"); });
}

/// Something that happens once, on any thread.
class Happening {
 public:
  void Set() {
    {
      const std::lock_guard lock(m_mtx);
      m_set = true;
    }
    m_changed.notify_all();
  }

  bool Await(std::chrono::milliseconds limit = kLimit) {
    std::unique_lock lock(m_mtx);
    return m_changed.wait_for(lock, limit, [this] { return m_set; });
  }

 private:
  std::mutex m_mtx;
  std::condition_variable m_changed;
  bool m_set = false;  // guarded by m_mtx
};

}  // namespace zr::halden::test
