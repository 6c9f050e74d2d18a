// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace zr::halden::testing {

/// How long the kit waits for what must happen, before it throws. Generous: only what has failed waits that long.
inline constexpr std::chrono::seconds kLimit{20};

/// Asks `condition` again and again until it holds or `limit` has passed; its last answer. For what tells nobody
/// when it changes, such as a process that starts or a counter. The condition runs on the calling thread, about
/// every two milliseconds, and once at least.
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

}  // namespace zr::halden::testing
