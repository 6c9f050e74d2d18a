// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>

#include "halden/connection_v2.h"
#include "zrstl/thread_safety.h"

namespace zr::halden::details {

/// What others may know of a connection. Any thread.
class StatusBoard {
 public:
  ConnectionStatus Status() const;

  void SetState(ConnectionState state);
  void SetError(int code, zr::String text);
  /// `known`: the session went on, rather than being new.
  void CountSession(std::int64_t id, bool known);
  void CountExpiry();

  /// While a stop is asked for and not carried out yet, AwaitClosed goes on waiting.
  void AskStop();
  void ConfirmStop();
  /// No handle is open, nor about to be, and no session is being ended.
  void SetClosed(bool closed);
  bool AwaitClosed(std::chrono::milliseconds limit) const;

 private:
  mutable zr::Mutex m_mtx;  // held for no call of foreign code
  mutable zr::ConditionVariable m_changed;
  ConnectionStatus m_status ZR_GUARDED_BY(m_mtx);
  bool m_closed ZR_GUARDED_BY(m_mtx) = true;
  std::uint64_t m_stopsAsked ZR_GUARDED_BY(m_mtx) = 0;  // that have not been carried out yet
};

}  // namespace zr::halden::details
