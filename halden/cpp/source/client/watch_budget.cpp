// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "client/watch_budget.h"

#include <algorithm>
#include <functional>
#include <utility>

namespace zr::halden::details {

void WatchBudget::Count(const Request& request, const std::string& path, int code) {
  const bool absentWatched = request.kind == Request::Kind::Exists && code == ZNONODE;
  if (code != ZOK && !absentWatched) return;
  const auto kind = request.kind == Request::Kind::GetChildren ? Kind::Children
                    : absentWatched                            ? Kind::Exists
                                                               : Kind::Data;
  if (Insert(Mark(kind, path))) m_bytes += BytesOf(path);
}

void WatchBudget::Uncount(int eventType, const std::string& path) {
  if (eventType == ZOO_CHILD_EVENT || eventType == ZOO_DELETED_EVENT) Uncount(Kind::Children, path);
  if (eventType == ZOO_CHILD_EVENT) return;
  Uncount(Kind::Data, path);
  Uncount(Kind::Exists, path);
}

void WatchBudget::Uncount(Kind kind, const std::string& path) {
  if (Erase(Mark(kind, path))) m_bytes -= std::min(m_bytes, BytesOf(path));  // two may have one mark
}

std::uint32_t WatchBudget::Mark(Kind kind, const std::string& path) {
  const std::size_t hash = std::hash<std::string>()(path) * 31 + static_cast<std::size_t>(kind);
  const auto mark = static_cast<std::uint32_t>(hash ^ (hash >> 32U));
  return mark == 0 ? 1 : mark;
}

/// Where the mark is, or would go. There is always a free place.
std::size_t WatchBudget::Find(std::uint32_t mark) const {
  const std::size_t mask = m_marks.size() - 1;
  std::size_t at = mark & mask;
  while (m_marks[at] != 0 && m_marks[at] != mark) at = (at + 1) & mask;
  return at;
}

bool WatchBudget::Insert(std::uint32_t mark) {
  if (4 * (m_count + 1) > 3 * m_marks.size()) Grow();
  auto& place = m_marks[Find(mark)];
  if (place == mark) return false;
  place = mark;
  ++m_count;
  return true;
}

bool WatchBudget::Erase(std::uint32_t mark) {
  if (m_count == 0) return false;
  const std::size_t mask = m_marks.size() - 1;
  std::size_t at = Find(mark);
  if (m_marks[at] != mark) return false;
  m_marks[at] = 0;
  --m_count;
  // Those behind it may have been put there only because its place was taken.
  for (at = (at + 1) & mask; m_marks[at] != 0; at = (at + 1) & mask) {
    const auto moved = std::exchange(m_marks[at], 0);
    m_marks[Find(moved)] = moved;
  }
  return true;
}

void WatchBudget::Grow() {
  constexpr std::size_t atFirst = 64;
  const auto marks =
      std::exchange(m_marks, std::vector<std::uint32_t>(m_marks.empty() ? atFirst : 2 * m_marks.size()));
  for (const auto mark : marks) {
    if (mark != 0) m_marks[Find(mark)] = mark;
  }
}

}  // namespace zr::halden::details
