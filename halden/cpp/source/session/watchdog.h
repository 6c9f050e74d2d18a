// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <chrono>

#include "base/task_thread.h"
#include "halden/connection_v2.h"

namespace zr::halden::details {

/// Judges a handle now and then, for what the client library does not tell by itself. Decides only.
class Watchdog {
 public:
  static constexpr std::chrono::seconds kPeriod{1};

  enum class Verdict : std::uint8_t {
    Fine,
    Away,          ///< no connection; it will find one
    ResolveNames,  ///< ... for so long that names may have moved
    /// A server took the connection and is silent: one that is just starting can lose it, and the library would
    /// wait for two thirds of the session timeout.
    ReplaceUnanswered,
    /// Nobody has taken the session back within its timeout. A handle never gets back to an ensemble that was set
    /// up anew: it shows what it has seen, and servers that know less refuse it.
    ReplaceRefused,
    /// Answers come in order: one that is lost would keep its node from ever being read or written again.
    ReplaceSilent
  };

  struct Sight {
    ConnectionState state;
    bool unanswered;                    ///< a server has taken the connection and not answered yet
    Clock::duration unheard;            ///< since when an answer is owed
    std::chrono::milliseconds timeout;  ///< of the session
    Clock::duration trip;               ///< shortest round trip; zero where it is not known
  };

  /// `unanswered`: handles in a row that were given up for a silent server: the way may be longer than was thought.
  explicit Watchdog(unsigned unanswered) : m_patience(1U << std::min(unanswered, 4U)) {}

  /// Once in each period.
  Verdict Look(const Sight& sight);

 private:
  const unsigned m_patience;
  unsigned m_roundsAway = 0;        // without a connection
  unsigned m_roundsUnanswered = 0;  // of those, in a row, with a server that does not answer
};

}  // namespace zr::halden::details
