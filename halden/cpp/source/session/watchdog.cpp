// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "session/watchdog.h"

#include <algorithm>

namespace zr::halden::details {

namespace {

/// Each time the way may be longer than was thought.
Clock::duration Patience(const Watchdog::Sight& sight) {
  constexpr std::chrono::seconds usual{2};
  return (usual + 4 * sight.trip) * (1U << std::min(sight.givenUp, 4U));
}

}  // namespace

Watchdog::Verdict Watchdog::Look(const Sight& sight) {
  constexpr unsigned resolveRounds = 5;  // without a connection
  if (sight.state == ConnectionState::Connected) {
    m_roundsAway = 0;
    return sight.unheard > sight.timeout ? Verdict::ReplaceSilent : Verdict::Fine;
  }
  ++m_roundsAway;
  if (sight.unanswered > Patience(sight)) return Verdict::GiveUpServer;
  if (sight.state == ConnectionState::Suspended && m_roundsAway * kPeriod > sight.timeout) {
    return Verdict::ReplaceRefused;
  }
  return m_roundsAway % resolveRounds == 0 ? Verdict::ResolveNames : Verdict::Away;
}

}  // namespace zr::halden::details
