// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "publish/publication_board.h"

#include "base/wait_limit.h"

namespace zr::halden::details {

std::uint64_t PublicationBoard::CountWish() {
  const std::lock_guard lock(m_mtx);
  return ++m_wished;
}

PublisherStatus PublicationBoard::Status() const {
  const std::lock_guard lock(m_mtx);
  return m_status;
}

bool PublicationBoard::AwaitPublished(std::chrono::milliseconds limit) const {
  std::unique_lock lock(m_mtx);
  return m_changed.wait_for(lock, WaitLimit(limit), [this] {
    return m_status.state == PublishState::Conflict ||
           (m_settled == m_wished && m_status.state == PublishState::Published);
  }) && m_status.state == PublishState::Published;
}

bool PublicationBoard::AwaitAbsent(std::chrono::milliseconds limit) const {
  std::unique_lock lock(m_mtx);
  return m_changed.wait_for(lock, WaitLimit(limit), [this] {
    return m_settled == m_wished && m_status.state == PublishState::Absent;
  });
}

void PublicationBoard::Unsettle() {
  const std::lock_guard lock(m_mtx);
  if (m_status.state != PublishState::Conflict) SetState(PublishState::Publishing);
}

void PublicationBoard::SetPublishing() {
  const std::lock_guard lock(m_mtx);
  SetState(PublishState::Publishing);
}

bool PublicationBoard::SetConflict(const zr::String& rival) {
  const std::lock_guard lock(m_mtx);
  const bool fresh = m_status.state != PublishState::Conflict;
  SetState(PublishState::Conflict);
  m_status.lastError = ZNODEEXISTS;
  m_status.rival = rival;
  return fresh;
}

void PublicationBoard::Settle(PublishState state, std::uint64_t wish) {
  const std::lock_guard lock(m_mtx);
  SetState(state);
  m_status.lastError = 0;
  m_settled = wish;
}

void PublicationBoard::CountCreation() {
  const std::lock_guard lock(m_mtx);
  ++m_status.published;
}

void PublicationBoard::SetError(int code) {
  const std::lock_guard lock(m_mtx);
  m_status.lastError = code;
}

void PublicationBoard::SetState(PublishState state) {
  m_status.state = state;
  m_status.rival.clear();
  m_changed.notify_all();
}

}  // namespace zr::halden::details
