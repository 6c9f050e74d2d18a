// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// What a publisher does about others that publish its instance. All on the connection's thread.
#include <algorithm>
#include <utility>

#include "base/log_sources.h"
#include "error_policy.h"
#include "node_codec.h"
#include "publish/publisher_core.h"

namespace zr::halden::details {

/// False while another publisher of the same id, through the same connection, has the node.
bool PublisherCore::HasClaim() {
  if (m_awaitingClaim) return false;
  using Result = PathClaims::Result;
  const auto released = [weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self) return;
    self->m_awaitingClaim = false;
    self->StepNow();
  };
  const auto result = m_claims->Claim(m_path, shared_from_this(), released);
  if (result == Result::Granted) return true;
  m_awaitingClaim = true;
  if (result == Result::Taken) Yield("another publisher of this process, through the same connection");
  if (result == Result::AboutToBeReleased) SetState(PublishState::Publishing);
  return false;
}

void PublisherCore::ReleaseClaim() {
  for (const auto& released : m_claims->Release(m_path, shared_from_this())) m_core->Post(released);
}

/// Of an earlier session of ours, of a dead process, or of a rival that lives: the rival will be back.
void PublisherCore::OnForeign(const Reply& reply) {
  const auto owner = reply.stat.ephemeralOwner;
  const bool own = std::find(m_sessions.begin(), m_sessions.end(), owner) != m_sessions.end();
  if (!own && owner != 0 && owner == m_replacedOwner) {
    Yield(WriterOf(reply.value));
    return Step();
  }
  if (!own && !m_established) m_replacedOwner = owner;
  ZRLOG(ZRLOG_INFO, PublisherLog()) << "replacing a node of another session, dc_name="
                                    << m_core->DataCenterName() << ", path=" << m_path;
  Delete(reply.stat.version);
}

void PublisherCore::Yield(const zr::String& rival) {
  if (!std::exchange(m_yielded, true)) {
    ZRLOG(ZRLOG_ERROR, PublisherLog())
        << "another publisher has this id, waiting for its end, rival=" << rival
        << ", dc_name=" << m_core->DataCenterName() << ", path=" << m_path;
  }
  m_watched = false;
  const std::lock_guard lock(m_mtx);
  m_status.state = PublishState::Conflict;
  m_status.lastError = ZNODEEXISTS;
  m_status.rival = rival;
  m_changed.notify_all();
}

void PublisherCore::AwaitRivalsEnd() {
  if (m_watched) return;
  m_watched = true;
  Send({.kind = Request::Kind::Exists, .path = m_path, .watch = true}, &PublisherCore::OnRivalLookedAt);
}

void PublisherCore::OnRivalLookedAt(Reply& reply) {
  const ErrorAction action = ActionFor(reply.code);
  if (action == ErrorAction::Done) return Step();
  m_watched = false;
  if (action != ErrorAction::Absent) return Retry(reply.code);
  m_yielded = false;
  m_replacedOwner = 0;
  Step();
}

}  // namespace zr::halden::details
