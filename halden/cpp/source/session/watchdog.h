// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

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
    /// A server does not answer at all: a host that is gone, a process that hangs, one that is just starting and has lost
    /// its client. The library would wait for two thirds of the session timeout.
    GiveUpServer,
    /// Nobody has taken the session back within its timeout. A handle never gets back to an ensemble that was set
    /// up anew: it shows what it has seen, and servers that know less refuse it.
    ReplaceRefused,
    /// Answers come in order: one that is lost would keep its node from ever being read or written again.
    ReplaceSilent
  };

  struct Sight {
    ConnectionState state;
    Clock::duration unanswered;         ///< since when a server is tried; zero while none is
    unsigned givenUp;                   ///< tries in a row that were
    Clock::duration unheard;            ///< since when an answer is owed
    std::chrono::milliseconds timeout;  ///< of the session
    Clock::duration trip;               ///< shortest round trip; zero where it is not known
  };

  /// Once in each period.
  Verdict Look(const Sight& sight);

 private:
  unsigned m_roundsAway = 0;  // without a connection
};

}  // namespace zr::halden::details
