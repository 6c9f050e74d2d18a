// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "base/task_thread.h"
#include "zrstl/string.h"

namespace zr::halden::details {

/// Who works on which node, among the publishers of one connection: at most one at a time. Sessions tell
/// publishers of one id apart, but not those that share one.
///
/// Threads: the connection's.
class PathClaims {
 public:
  using Owner = std::shared_ptr<const void>;
  enum class Result : std::uint8_t { Granted, Taken, AboutToBeReleased };

  /// Who does not get it is told by `released` when it is free.
  Result Claim(const zr::String& path, const Owner& owner, TaskThread::Task released);
  /// The owner has ended and will release it when it has cleaned up.
  void AnnounceRelease(const zr::String& path, const Owner& owner);
  /// Those who wait for it, to be told.
  std::vector<TaskThread::Task> Release(const zr::String& path, const Owner& owner);

 private:
  struct Waiting {
    std::weak_ptr<const void> who;
    TaskThread::Task released;
  };
  struct PathClaim {
    std::weak_ptr<const void> owner;
    bool ending = false;
    std::vector<Waiting> waiting;  // each once, however often it asks
  };

  void ForgetDead();

  std::unordered_map<zr::String, PathClaim> m_claims;
  std::size_t m_living = 0;  // claims when it was last looked at
};

}  // namespace zr::halden::details
