// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "instance_table.h"

#include <utility>

namespace zr::halden::details {

std::vector<ChangeKind> Diff(const NodeVersion* announced, const NodeVersion* known) {
  if (announced == nullptr && known == nullptr) return {};
  if (announced == nullptr) return {ChangeKind::Added};
  if (known == nullptr) return {ChangeKind::Removed};
  if (announced->czxid != known->czxid) return {ChangeKind::Removed, ChangeKind::Added};
  if (announced->mzxid != known->mzxid) return {ChangeKind::Modified};
  return {};
}

bool InstanceTable::IsOlder(const Entry& entry, const NodeVersion& version) {
  if (version.czxid != entry.seen.czxid) return version.czxid < entry.seen.czxid;
  return version.mzxid < entry.seen.mzxid;
}

InstanceTable::Outcome InstanceTable::Put(const ServiceId& id, const NodeVersion& version,
                                          InstanceDataPtr data, bool force) {
  Entry& entry = m_entries[id];
  if (IsOlder(entry, version) && !force) return Outcome::Older;
  if (entry.data && entry.good == version) return Outcome::Unchanged;
  entry.seen = version;
  entry.good = version;
  SetData(entry, std::move(data));
  SetQuarantined(entry, false);
  Queue(id, entry);
  return Outcome::Changed;
}

InstanceTable::Outcome InstanceTable::Quarantine(const ServiceId& id, const NodeVersion& version,
                                                 bool force) {
  Entry& entry = m_entries[id];
  if (IsOlder(entry, version) && !force) return Outcome::Older;
  if (entry.quarantined && entry.seen == version) return Outcome::Unchanged;
  if (entry.data &&
      entry.good.czxid != version.czxid) {  // the good value was another node's: that one is gone
    SetData(entry, nullptr);
    Queue(id, entry);
  }
  entry.seen = version;
  SetQuarantined(entry, true);
  return Outcome::Changed;
}

void InstanceTable::Remove(const ServiceId& id) {
  const auto found = m_entries.find(id);
  if (found == m_entries.end()) return;
  Entry& entry = found->second;
  SetData(entry, nullptr);
  SetQuarantined(entry, false);
  entry.seen = {};
  if (entry.queued) return;
  if (entry.announced == NodeVersion{}) {
    m_entries.erase(found);
  } else {
    Queue(id, entry);
  }
}

std::vector<ServiceId> InstanceTable::List() const {
  std::vector<ServiceId> ids;
  ids.reserve(m_known);
  for (const auto& [id, entry] : m_entries) {
    if (entry.data) ids.push_back(id);
  }
  return ids;
}

InstanceDataPtr InstanceTable::Find(const ServiceId& id) const {
  const auto found = m_entries.find(id);
  return found == m_entries.end() ? nullptr : found->second.data;
}

InstanceTable::Change InstanceTable::Take() {
  Change change;
  change.id = m_queue.front();
  m_queue.pop_front();
  const auto found = m_entries.find(change.id);
  Entry& entry = found->second;
  entry.queued = false;
  change.kinds =
      Diff(entry.announced == NodeVersion{} ? nullptr : &entry.announced, entry.data ? &entry.good : nullptr);
  change.data = entry.data;
  entry.announced = entry.data ? entry.good : NodeVersion{};
  if (!entry.data && !entry.quarantined) m_entries.erase(found);
  return change;
}

void InstanceTable::SetData(Entry& entry, InstanceDataPtr data) {
  if (!entry.data && data) ++m_known;
  if (entry.data && !data) --m_known;
  entry.data = std::move(data);
}

void InstanceTable::SetQuarantined(Entry& entry, bool quarantined) {
  if (quarantined && !entry.quarantined) ++m_quarantined;
  if (!quarantined && entry.quarantined) --m_quarantined;
  entry.quarantined = quarantined;
}

void InstanceTable::Queue(const ServiceId& id, Entry& entry) {
  if (entry.queued) return;
  entry.queued = true;
  m_queue.push_back(id);
}

}  // namespace zr::halden::details
