// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "publish/publication_board.h"

#include <utility>

#include "base/wait_limit.h"

namespace zr::halden::details {

std::uint64_t PublicationBoard::CountWish() {
  const zr::MutexLock lock(m_mtx);
  return ++m_wished;
}

PublisherStatus PublicationBoard::Status() const {
  const zr::MutexLock lock(m_mtx);
  return m_status;
}

bool PublicationBoard::AwaitPublished(std::chrono::milliseconds limit) const {
  const zr::MutexLock lock(m_mtx);
  return m_changed.WaitFor(m_mtx, WaitLimit(limit), [this]() ZR_REQUIRES(m_mtx) {
    return m_status.state == PublishState::Conflict ||
           (m_settled == m_wished && m_status.state == PublishState::Published);
  }) && m_status.state == PublishState::Published;
}

bool PublicationBoard::AwaitAbsent(std::chrono::milliseconds limit) const {
  const zr::MutexLock lock(m_mtx);
  return m_changed.WaitFor(m_mtx, WaitLimit(limit), [this]() ZR_REQUIRES(m_mtx) {
    return m_settled == m_wished && m_status.state == PublishState::Absent;
  });
}

void PublicationBoard::Unsettle() {
  const zr::MutexLock lock(m_mtx);
  if (m_status.state != PublishState::Conflict) SetState(PublishState::Publishing);
}

void PublicationBoard::SetPublishing() {
  const zr::MutexLock lock(m_mtx);
  SetState(PublishState::Publishing);
}

bool PublicationBoard::SetConflict(const zr::String& rival) {
  const zr::MutexLock lock(m_mtx);
  const bool fresh = m_status.state != PublishState::Conflict;
  SetState(PublishState::Conflict);
  m_status.lastError = ZNODEEXISTS;
  m_status.rival = rival;
  return fresh;
}

void PublicationBoard::Settle(PublishState state, std::uint64_t wish) {
  const zr::MutexLock lock(m_mtx);
  SetState(state);
  m_status.lastError = 0;
  m_settled = wish;
}

void PublicationBoard::CountCreation() {
  const zr::MutexLock lock(m_mtx);
  ++m_status.published;
}

void PublicationBoard::CountUndone() {
  const zr::MutexLock lock(m_mtx);
  ++m_status.undone;
}

void PublicationBoard::CountReplaced(zr::String writer) {
  const zr::MutexLock lock(m_mtx);
  ++m_status.replaced;
  m_status.replacedWriter = std::move(writer);
}

void PublicationBoard::SetError(int code) {
  const zr::MutexLock lock(m_mtx);
  m_status.lastError = code;
}

void PublicationBoard::SetState(PublishState state) {
  m_status.state = state;
  m_status.rival.clear();
  m_changed.NotifyAll();
}

}  // namespace zr::halden::details
