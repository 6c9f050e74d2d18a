// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>

#include "base/backoff.h"
#include "base/clock.h"

namespace zr::halden::details {

/// How long a publisher waits before it tries again. Failures and losses grow apart: what fails ends with a
/// success, while of a node that others delete or change again and again each writing succeeds.
///
/// Threads: the connection's.
class RetryPause {
 public:
  Clock::duration AfterFailure() { return m_failures.Next(); }
  Clock::duration AfterLoss() {
    if (Clock::now() - m_writtenAt > kStood) m_losses.Reset();
    return m_losses.Next();
  }
  void OnWritten() { m_writtenAt = Clock::now(); }
  void OnSettled() { m_failures.Reset(); }
  void Reset() {
    m_failures.Reset();
    m_losses.Reset();
  }

  /// Begins a pause and says which it is.
  std::uint64_t Begin() { return ++m_number; }
  /// Its timer is not that of an earlier one.
  bool IsLast(std::uint64_t number) const { return m_number == number; }

 private:
  // After this a node that goes is news, and no war with whoever deletes it.
  static constexpr std::chrono::seconds kStood{30};

  Backoff m_failures{std::chrono::milliseconds(50), std::chrono::seconds(10)};
  Backoff m_losses{std::chrono::milliseconds(50), std::chrono::seconds(10)};
  Clock::time_point m_writtenAt{};
  std::uint64_t m_number = 0;
};

}  // namespace zr::halden::details
