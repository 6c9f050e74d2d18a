// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// What a publisher does about others that publish its instance. All on the connection's thread.
#include <utility>

#include "base/log_sources.h"
#include "model/node_codec.h"
#include "publish/publisher_core.h"

namespace zr::halden::details {

/// False while another publisher of the same id, through the same connection, has the node.
bool PublisherCore::HasClaim() {
  using Result = PathClaims::Result;
  const auto released = [weak = weak_from_this()] {
    const auto self = weak.lock();
    if (self && self->m_phase == PublisherPhase::AwaitingClaim) self->Step();
  };
  const auto result = m_claims->Claim(m_path, shared_from_this(), released);
  if (result == Result::Granted) return true;
  SetPhase(PublisherPhase::AwaitingClaim);
  if (result == Result::Taken) SetConflict("another publisher of this process, through the same connection");
  if (result == Result::AboutToBeReleased) m_board.SetPublishing();
  return false;
}

void PublisherCore::ReleaseClaim() {
  for (const auto& released : m_claims->Release(m_path, shared_from_this())) m_core->Post(released);
}

/// Of an earlier session of ours, of a dead process, or of a rival that lives: the rival will be back.
void PublisherCore::OnForeign() {
  if (!m_node.OfOurSessions() && m_rivalry.YieldsTo(m_node.Owner())) {
    SetPhase(PublisherPhase::Yielded);
    return SetConflict(WriterOf(m_node.Bytes()));
  }
  ZRLOG(ZRLOG_INFO, PublisherLog()) << "replacing a node of another session, dc_name="
                                    << m_core->DataCenterName() << ", path=" << m_path;
  if (m_wish) m_board.SetPublishing();
  m_node.Version() == 0 ? Mark() : Delete();
}

void PublisherCore::SetConflict(const zr::String& rival) {
  if (!m_board.SetConflict(rival)) return;
  ZRLOG(ZRLOG_ERROR, PublisherLog()) << "another publisher has this id, waiting for its end, rival=" << rival
                                     << ", dc_name=" << m_core->DataCenterName() << ", path=" << m_path;
}

}  // namespace zr::halden::details
