// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace zr::halden::test {

/// What the global watcher did, in one order: its calls into the collaborators' stand-ins, their ends, and
/// its log lines. A step made while the watcher's m_mtx was held starts with "* ". One thread.
class Journal {
 public:
  static Journal& Get() {
    static Journal journal;
    return journal;
  }

  /// Writes `step` down, then does what is to happen there.
  void Step(const std::string& step) {
    const bool held = m_isLocked && m_isLocked();
    m_lines.push_back((held ? "* " : "") + step);
    if (const auto found = m_actions.find(step); found != m_actions.end()) std::function(found->second)();
  }

  /// The lines since the last call.
  std::vector<std::string> Take() { return std::exchange(m_lines, {}); }

  std::map<std::string, std::function<void()>> m_actions;  ///< what is to happen at a step: a throw, say
  std::function<bool()> m_isLocked;  ///< whether m_mtx is held; empty: steps are written without

 private:
  std::vector<std::string> m_lines;
};

}  // namespace zr::halden::test
