// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace zr::halden::test {

/// What the global watcher did, in one order: its calls into the collaborators' stand-ins, their ends, and
/// its log lines. A step made while the watcher's m_mtx was held starts with "* ".
class Journal {
 public:
  static Journal& Get() {
    static Journal journal;
    return journal;
  }

  /// Writes `step` down, then does what is to happen there.
  void Step(const std::string& step) {
    const bool held = m_isLocked && m_isLocked();
    std::function<void()> action;
    {
      const std::lock_guard lock(m_mtx);
      m_lines.push_back((held ? "* " : "") + step);
      if (const auto found = m_actions.find(step); found != m_actions.end()) action = found->second;
    }
    if (action) action();
  }

  /// The lines since the last call.
  std::vector<std::string> Take() {
    const std::lock_guard lock(m_mtx);
    return std::exchange(m_lines, {});
  }

  // For the test's own thread, while no other writes.
  std::map<std::string, std::function<void()>> m_actions;  ///< what is to happen at a step: a throw, say
  std::function<bool()> m_isLocked;  ///< whether m_mtx is held; empty: steps are written without

 private:
  std::mutex m_mtx;  // not held while an action runs
  std::vector<std::string> m_lines;
};

}  // namespace zr::halden::test
