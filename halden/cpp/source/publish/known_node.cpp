// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "publish/known_node.h"

#include <algorithm>
#include <utility>

namespace zr::halden::details {

bool KnownNode::OfOurSessions() const {
  return std::find(m_sessions.begin(), m_sessions.end(), m_owner) != m_sessions.end();
}

/// Until it is answered, and for ever when the answer is lost, there may be a node.
void KnownNode::OnCreationBegun(std::int64_t session) {
  m_kind = Kind::Unknown;
  if (std::find(m_sessions.begin(), m_sessions.end(), session) == m_sessions.end()) {
    m_sessions.push_back(session);
  }
}

/// When the answer is lost, that the node has gone is no deed of others.
void KnownNode::OnDeletionBegun() {
  if (m_kind == Kind::Confirmed) m_kind = Kind::Unknown;
}

void KnownNode::OnWriteBegun() {
  m_kind = Kind::Held;
  m_version = kAnyVersion;
}

void KnownNode::OnWritten(int version) {
  m_kind = Kind::Held;
  m_version = version;
}

void KnownNode::OnAbsent() {
  m_kind = Kind::Absent;
  m_sessions.clear();
}

const char* KnownNode::OnLooked(Reply& reply, std::int64_t session) {
  const bool held = m_kind == Kind::Held;
  const bool changed = m_version != kAnyVersion && m_version != reply.stat.version;
  m_owner = reply.stat.ephemeralOwner;
  m_created = reply.stat.czxid;
  m_version = reply.stat.version;
  m_bytes = std::move(reply.value);
  if (m_owner == session) {
    m_kind = Kind::Confirmed;
    m_sessions = {session};
    return held && changed ? "node changed by others" : nullptr;
  }
  m_kind = Kind::Foreign;
  if (!OfOurSessions()) m_sessions.clear();
  return held ? "node taken over by another session" : nullptr;
}

void KnownNode::Doubt() {
  if (m_kind == Kind::Confirmed) m_kind = Kind::Held;
  if (m_kind == Kind::Foreign) m_kind = Kind::Unknown;
}

}  // namespace zr::halden::details
