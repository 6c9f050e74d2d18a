// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "session/watchdog.h"

namespace zr::halden::details {

Watchdog::Verdict Watchdog::Look(const Sight& sight) {
  constexpr unsigned resolveRounds = 5;  // without a connection
  const auto unansweredRounds = m_patience * (2 + static_cast<unsigned>(4 * sight.trip / kPeriod));
  if (sight.state == ConnectionState::Connected) {
    m_roundsAway = 0;
    m_roundsUnanswered = 0;
    return sight.unheard > sight.timeout ? Verdict::ReplaceSilent : Verdict::Fine;
  }
  ++m_roundsAway;
  m_roundsUnanswered = sight.unanswered ? m_roundsUnanswered + 1 : 0;
  if (m_roundsUnanswered > unansweredRounds) return Verdict::ReplaceUnanswered;
  if (sight.state == ConnectionState::Suspended && m_roundsAway * kPeriod > sight.timeout) {
    return Verdict::ReplaceRefused;
  }
  return m_roundsAway % resolveRounds == 0 ? Verdict::ResolveNames : Verdict::Away;
}

}  // namespace zr::halden::details
