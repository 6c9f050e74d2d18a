// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "watch/audit.h"

#include <algorithm>

#include "base/chance.h"

namespace zr::halden::details {

namespace {

constexpr Clock::time_point kNever = Clock::time_point::max();

}  // namespace

void Audit::Set(const AuditIntervals& intervals) {
  m_intervals = intervals;
  m_list = {};
  m_instance = {};
}

Audit::Due Audit::Take(Clock::time_point now, std::size_t lists, std::size_t instances) {
  // A list has hundreds of names where an instance's answer has some hundred bytes.
  constexpr std::size_t mostLists = 8;
  constexpr std::size_t mostInstances = 64;
  if (m_list == Clock::time_point{}) {
    m_list = Next(now, m_intervals.lists, lists);
    m_instance = Next(now, m_intervals.instances, instances);
  }
  return {TakeDue(m_list, now, m_intervals.lists, lists, mostLists),
          TakeDue(m_instance, now, m_intervals.instances, instances, mostInstances)};
}

/// Goes on from when it was due, or at a distance, where each list that is read holds up the rest, it would never get
/// through in time.
std::size_t Audit::TakeDue(Clock::time_point& next, Clock::time_point now, std::chrono::milliseconds interval,
                           std::size_t count, std::size_t most) {
  std::size_t due = 0;
  for (; next <= now && due < most; ++due) next = Next(next, interval, count);
  if (next <= now) next = Next(now, interval, count);  // more was missed than can be made up for
  return std::min(due, count);
}

Clock::duration Audit::Wait(Clock::time_point now) const {
  // Nothing is due for long, or the audit is off: the timer needs some bound.
  constexpr std::chrono::minutes longest{1};
  const auto next = std::min(m_list, m_instance);
  if (next == kNever) return longest;
  return std::clamp<Clock::duration>(next - now, std::chrono::milliseconds(1), longest);
}

/// With jitter, and such that all of them are through before the interval is over.
Clock::time_point Audit::Next(Clock::time_point last, std::chrono::milliseconds interval, std::size_t count) {
  if (interval.count() <= 0) return kNever;
  const auto each = std::chrono::duration_cast<Clock::duration>(interval) / std::max<std::size_t>(count, 1);
  return last + std::chrono::duration_cast<Clock::duration>(each * (0.5 + Chance() / 2));
}

}  // namespace zr::halden::details
