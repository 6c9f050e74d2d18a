// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <unordered_map>

namespace zr::halden::details {

/// Who gives way when an instance has several publishers, in sessions of their own. Nobody can ask whether the
/// owner of a foreign node lives, but only a publisher that lives takes back what was replaced.
///
///   Newcomer --its node stood, confirmed--------> First
///   First    --connected anew-------------------> Newcomer: another one may have come meanwhile
///   any      --finds again whom it has replaced-> Yielding
///   Yielding --the rival's node is gone---------> Newcomer
///   any      --takes its own node back----------> Newcomer
///
/// Who is first may replace a rival twice before it yields: the rival is the one to do so, unless it has been
/// first as well, which happens when one takes its instance back for a while.
///
/// Threads: the connection's.
class Rivalry {
 public:
  void OnConnected() {
    if (m_standing == Standing::First) m_standing = Standing::Newcomer;
  }
  void OnRemoved() { m_standing = Standing::Newcomer; }
  void OnStood() { m_standing = Standing::First; }
  void OnReplaced(std::int64_t owner) {
    if (owner == 0) return;  // of no session: that it is there again says nothing
    m_replaced[owner] += m_standing == Standing::First ? 1 : kPatience;
  }
  /// Whose node is there is to be left alone.
  bool YieldsTo(std::int64_t owner) {
    const auto replaced = m_replaced.find(owner);
    if (replaced != m_replaced.end() && replaced->second >= kPatience) m_standing = Standing::Yielding;
    return m_standing == Standing::Yielding;
  }
  void OnGone() {
    if (m_standing == Standing::Yielding) *this = {};
  }

 private:
  enum class Standing : std::uint8_t { Newcomer, First, Yielding };
  static constexpr int kPatience = 2;

  Standing m_standing = Standing::Newcomer;
  std::unordered_map<std::int64_t, int> m_replaced;  // sessions, and how far we are from yielding to them
};

}  // namespace zr::halden::details
