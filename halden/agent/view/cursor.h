// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <vector>

namespace zr::halden::agent {

/// Counts the changes of one service's view.
using Revision = std::uint64_t;

/// How far one reader has been told what a view holds, and of what: all that is remembered for it, a bit for each
/// instance. It is not a queue: what it is told next is looked up when it can take it.
class Cursor {
 public:
  Revision Position() const { return m_position; }

 private:
  friend class ServiceView;

  bool Has(std::uint32_t slot) const { return slot < m_has.size() && m_has[slot]; }
  void SetHas(std::uint32_t slot, bool has) {
    if (slot >= m_has.size()) m_has.resize(slot + 1);
    m_has[slot] = has;
  }

  Revision m_position = 0;
  Revision m_begun = 0;     // the view's head then: what was gone by then does not concern it
  std::vector<bool> m_has;  // by slot: it has been told of it, and not that it is gone
};

}  // namespace zr::halden::agent
