// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <utility>

namespace zr::halden::test {

/// How long a test waits for what must happen. Generous: only a failing test ever waits that long.
inline constexpr std::chrono::seconds kLimit{20};

/// Asks `condition` again and again until it holds or `limit` has passed; its last answer. For what tells
/// nobody when it changes, such as a process that starts or a counter.
template <typename Condition>
bool Poll(std::chrono::milliseconds limit, Condition&& condition) {
  constexpr std::chrono::milliseconds pause{2};
  const auto deadline = std::chrono::steady_clock::now() + limit;
  std::mutex mtx;
  std::condition_variable never;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return condition();
    std::unique_lock lock(mtx);
    never.wait_for(lock, pause);
  }
  return true;
}

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
