// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "session/status_board.h"

#include <utility>

#include "base/wait_limit.h"

namespace zr::halden::details {

ConnectionStatus StatusBoard::Status() const {
  const zr::MutexLock lock(m_mtx);
  return m_status;
}

void StatusBoard::SetState(ConnectionState state) {
  const zr::MutexLock lock(m_mtx);
  m_status.state = state;
  if (state != ConnectionState::Connected && state != ConnectionState::Suspended) m_status.sessionId = 0;
}

void StatusBoard::SetError(int code, zr::String text) {
  const zr::MutexLock lock(m_mtx);
  m_status.lastError = code;
  m_status.lastErrorText = std::move(text);
}

void StatusBoard::CountSession(std::int64_t id, bool known) {
  const zr::MutexLock lock(m_mtx);
  m_status.sessionId = id;
  ++(known ? m_status.reconnects : m_status.sessions);
}

void StatusBoard::CountExpiry() {
  const zr::MutexLock lock(m_mtx);
  ++m_status.expiries;
}

void StatusBoard::AskStop() {
  const zr::MutexLock lock(m_mtx);
  ++m_stopsAsked;
}

void StatusBoard::ConfirmStop() {
  const zr::MutexLock lock(m_mtx);
  --m_stopsAsked;
  m_changed.NotifyAll();
}

void StatusBoard::SetClosed(bool closed) {
  const zr::MutexLock lock(m_mtx);
  m_closed = closed;
  m_changed.NotifyAll();
}

bool StatusBoard::AwaitClosed(std::chrono::milliseconds limit) const {
  const zr::MutexLock lock(m_mtx);
  return m_changed.WaitFor(m_mtx, WaitLimit(limit),
                           [this]() ZR_REQUIRES(m_mtx) { return m_closed && m_stopsAsked == 0; });
}

}  // namespace zr::halden::details
