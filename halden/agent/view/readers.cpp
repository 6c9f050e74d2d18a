// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// How a view tells its readers what lies behind their cursors.
#include <algorithm>

#include "agent/view/service_view.h"
#include "render/json.h"

namespace zr::halden::agent {

Cursor ServiceView::Begin() const {
  Cursor cursor;
  cursor.m_begun = m_head;
  return cursor;
}

std::optional<Cursor> ServiceView::Resume(Revision revision) const {
  if (revision < m_horizon || revision > m_head) return std::nullopt;
  Cursor cursor;
  cursor.m_position = revision;
  for (const auto& entry : m_index) {
    if (entry->second.added <= revision) cursor.SetHas(entry->second.slot, true);
  }
  for (auto gone = FirstTombstone(revision); gone != m_tombstones.end(); ++gone) {
    if (gone->added <= revision) cursor.SetHas(gone->slot, true);
  }
  return cursor;
}

std::deque<ServiceView::Tombstone>::const_iterator ServiceView::FirstTombstone(Revision behind) const {
  return std::upper_bound(m_tombstones.begin(), m_tombstones.end(), behind,
                          [](Revision revision, const Tombstone& gone) { return revision < gone.removed; });
}

std::optional<Change> ServiceView::Next(Cursor& cursor) const {
  while (IsBehind(cursor)) {
    const auto live = m_order.upper_bound(cursor.m_position);
    const auto gone = FirstTombstone(cursor.m_position);
    const bool isLive = live != m_order.end() && (gone == m_tombstones.end() || live->first < gone->removed);
    if (isLive) return Tell(cursor, live->first, live->second);
    if (gone == m_tombstones.end()) {  // what was the newest has been dropped
      cursor.m_position = m_head;
    } else if (auto change = Tell(cursor, *gone)) {
      return change;
    }
  }
  return std::nullopt;
}

Change ServiceView::Tell(Cursor& cursor, Revision revision, const Item& item) const {
  Change change;
  change.kind = !item.id                ? Change::Kind::State
                : cursor.Has(item.slot) ? Change::Kind::Modified
                                        : Change::Kind::Added;
  change.object = Object(item, m_serviceKey);
  cursor.m_position = revision;
  cursor.SetHas(item.slot, true);
  if (IsResumable(cursor)) change.resumable = revision;
  return change;
}

/// Null for what the reader has never been told of.
std::optional<Change> ServiceView::Tell(Cursor& cursor, const Tombstone& tombstone) const {
  cursor.m_position = tombstone.removed;
  if (!cursor.Has(tombstone.slot)) return std::nullopt;
  cursor.SetHas(tombstone.slot, false);
  Change change;
  change.kind = tombstone.id ? Change::Kind::Removed : Change::Kind::DataCenterRemoved;
  change.object = std::string(R"({"type":")") + (tombstone.id ? "removed" : "data_center_removed") + "\"," +
                  m_serviceKey + "\"data_center\":" + tool::JsonText(*tombstone.dataCenter);
  if (tombstone.id) change.object += ",\"id\":\"" + halden::ToString(*tombstone.id) + '"';
  change.object += '}';
  if (IsResumable(cursor)) change.resumable = cursor.m_position;
  return change;
}

/// Whether `Resume` would bring back just this cursor: it takes for told whatever had been added by then. What was added
/// earlier and has changed since stands further behind, and may not have been told yet. Not looked for very far: a
/// reader that is so late is resumable again when it comes near the end.
bool ServiceView::IsResumable(const Cursor& cursor) const {
  constexpr int farthest = 64;
  int seen = 0;
  for (auto live = m_order.upper_bound(cursor.m_position); live != m_order.end(); ++live) {
    const Item& item = live->second;
    if (++seen > farthest || cursor.Has(item.slot) != (item.added <= cursor.m_position)) return false;
  }
  for (auto gone = FirstTombstone(cursor.m_position); gone != m_tombstones.end(); ++gone) {
    if (++seen > farthest || cursor.Has(gone->slot) != (gone->added <= cursor.m_position)) return false;
  }
  return true;
}

}  // namespace zr::halden::agent
