// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "model/removal_guard.h"

#include <algorithm>
#include <iterator>

namespace zr::halden::details {

namespace {

constexpr std::chrono::milliseconds kWindow{1000};
// No removal for so long: what came before was a few instances that left together.
constexpr std::chrono::milliseconds kQuiet{250};
// Of so many one can be spared before it is known whether it is the first of a mass.
constexpr std::size_t kMany = 10;
constexpr std::chrono::milliseconds kForEver = std::chrono::hours(24) * 365 * 100;

}  // namespace

RemovalGuard::RemovalGuard(const MassRemovalGuard& options)
    : m_options(options), m_grace(std::min(options.gracePeriod, kForEver)) {}

bool RemovalGuard::Hold(const ServiceId& id, TimePoint now, std::size_t present) {
  while (!m_recent.empty() && m_recent.front() + kWindow <= now) m_recent.pop_front();
  const auto before = present + m_recent.size();
  const bool toSpare = (m_recent.empty() && before >= kMany) || before < m_options.least;
  m_recent.push_back(now);
  const bool mass = m_recent.size() >= m_options.least &&
                    static_cast<double>(m_recent.size()) > m_options.share * static_cast<double>(before);
  if (mass) std::move(m_undecided.begin(), m_undecided.end(), std::back_inserter(m_held));
  if (mass) m_undecided.clear();
  if (toSpare && !mass) return false;
  (mass ? m_held : m_undecided).push_back({id, now});
  m_since[id] = now;
  return true;
}

std::vector<ServiceId> RemovalGuard::Due(TimePoint now) {
  std::vector<ServiceId> due;
  const bool quiet = m_recent.empty() || m_recent.back() + kQuiet <= now;
  TakeUntil(m_undecided, quiet ? now : now - kWindow, due);
  TakeUntil(m_held, now - m_grace, due);
  return due;
}

void RemovalGuard::TakeUntil(std::deque<Waiting>& from, TimePoint since, std::vector<ServiceId>& due) {
  for (; !from.empty() && from.front().since <= since; from.pop_front()) {
    const auto found = m_since.find(from.front().id);
    if (found == m_since.end() || found->second != from.front().since) continue;  // it has come back
    due.push_back(found->first);
    m_since.erase(found);
  }
}

std::optional<RemovalGuard::TimePoint> RemovalGuard::NextDue() const {
  std::optional<TimePoint> next;
  if (!m_undecided.empty()) next = std::min(m_undecided.front().since + kWindow, m_recent.back() + kQuiet);
  if (!m_held.empty()) {
    const auto end = m_held.front().since + m_grace;
    next = next ? std::min(*next, end) : end;
  }
  return next;
}

}  // namespace zr::halden::details
