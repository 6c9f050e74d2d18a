// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "model/instance_table.h"

#include <utility>

namespace zr::halden::details {

std::vector<InstanceChange> Diff(const NodeVersion* announced, const NodeVersion* known) {
  if (announced == nullptr && known == nullptr) return {};
  if (announced == nullptr) return {InstanceChange::Added};
  if (known == nullptr) return {InstanceChange::Removed};
  if (announced->czxid != known->czxid) return {InstanceChange::Removed, InstanceChange::Added};
  if (announced->mzxid != known->mzxid) return {InstanceChange::Modified};
  return {};
}

bool InstanceTable::IsOlder(const Entry& entry, const NodeVersion& version) {
  if (version.czxid != entry.seen.czxid) return version.czxid < entry.seen.czxid;
  return version.mzxid < entry.seen.mzxid;
}

InstanceTable::Outcome InstanceTable::Put(const ServiceId& id, const NodeVersion& version,
                                          std::string payload, bool force) {
  Entry& entry = m_entries[id];
  if (IsOlder(entry, version) && !force) return Outcome::Older;
  entry.restored = false;
  if (entry.held) {
    Rejoin(entry, version, payload);
    SetHeld(entry, false);
  } else if (!entry.payload.empty() && entry.good == version) {
    if (entry.payload == payload) return Outcome::Unchanged;
    // An ensemble that was set up anew has come to the same transaction numbers: it is another node.
    if (entry.announced == version) entry.announced = {-1, -1};
  }
  entry.seen = version;
  entry.good = version;
  SetPayload(id, entry, std::move(payload));
  SetQuarantined(entry, false);
  if (entry.announced != entry.good) Queue(id, entry);
  return Outcome::Changed;
}

InstanceTable::Outcome InstanceTable::Quarantine(const ServiceId& id, const NodeVersion& version,
                                                 bool force) {
  Entry& entry = m_entries[id];
  if (IsOlder(entry, version) && !force) return Outcome::Older;
  entry.restored = false;
  if (entry.quarantined && entry.seen == version) return Outcome::Unchanged;
  if (!entry.payload.empty() && entry.good.czxid != version.czxid) {
    SetPayload(id, entry, {});  // the good value was another node's: that one is gone
    Queue(id, entry);
  }
  SetHeld(entry, false);
  entry.seen = version;
  SetQuarantined(entry, true);
  return Outcome::Changed;
}

void InstanceTable::Remove(const ServiceId& id) {
  const auto found = m_entries.find(id);
  if (found == m_entries.end()) return;
  Entry& entry = found->second;
  SetPayload(id, entry, {});
  SetQuarantined(entry, false);
  SetHeld(entry, false);
  entry.seen = {};
  entry.restored = false;
  if (entry.queued) return;
  if (entry.announced == NodeVersion{}) {
    m_entries.erase(found);
  } else {
    Queue(id, entry);
  }
}

void InstanceTable::Restore(KeptInstance instance) {
  if (m_entries.contains(instance.id)) return;
  Put(instance.id, instance.version, std::move(instance.payload), false);
  m_entries[instance.id].restored = true;
}

void InstanceTable::Disown(std::int64_t czxid) {
  constexpr NodeVersion ofNoNode{-1, -1};
  for (auto& [id, entry] : m_entries) {
    if (!entry.restored || entry.seen.czxid >= czxid) continue;
    entry.seen = {};
    entry.good = ofNoNode;
    if (entry.announced != NodeVersion{}) entry.announced = ofNoNode;
  }
}

bool InstanceTable::Hold(const ServiceId& id) {
  const auto found = m_entries.find(id);
  if (found == m_entries.end()) return false;
  Entry& entry = found->second;
  if (entry.payload.empty() || entry.announced == NodeVersion{}) return false;
  SetHeld(entry, true);
  SetQuarantined(entry, false);
  entry.seen = {};  // whatever comes is another node
  return true;
}

/// Observers who know the instance with this very data need not hear of it; others hear of a modification,
/// although it is another node.
void InstanceTable::Rejoin(Entry& entry, const NodeVersion& version, const std::string& payload) {
  const bool toldAlready = entry.announced == entry.good && entry.payload == payload;
  // No node has that mzxid: in an ensemble that was set up anew the old one could come again.
  entry.announced = toldAlready ? version : NodeVersion{version.czxid, -1};
}

std::vector<InstanceTable::Instance> InstanceTable::Copy() const {
  std::vector<Instance> instances;
  instances.reserve(m_known.size());
  for (const auto& id : m_known) {
    const Entry& entry = m_entries.at(id);
    instances.push_back({id, entry.payload, entry.held});
  }
  return instances;
}

std::vector<ServiceId> InstanceTable::List() const {
  return m_known;
}

std::vector<ServiceId> InstanceTable::ListHeld() const {
  std::vector<ServiceId> ids;
  if (m_held == 0) return ids;
  for (const auto& [id, entry] : m_entries) {
    if (entry.held) ids.push_back(id);
  }
  return ids;
}

std::optional<std::string> InstanceTable::Find(const ServiceId& id) const {
  const auto found = m_entries.find(id);
  if (found == m_entries.end() || found->second.payload.empty()) return std::nullopt;
  return found->second.payload;
}

std::optional<KeptInstance> InstanceTable::Keep(const ServiceId& id) const {
  const auto found = m_entries.find(id);
  if (found == m_entries.end() || found->second.payload.empty()) return std::nullopt;
  return KeptInstance{id, found->second.good, found->second.payload};
}

bool InstanceTable::IsHeld(const ServiceId& id) const {
  const auto found = m_entries.find(id);
  return found != m_entries.end() && found->second.held;
}

NodeVersion InstanceTable::Seen(const ServiceId& id) const {
  const auto found = m_entries.find(id);
  return found == m_entries.end() ? NodeVersion{} : found->second.seen;
}

/// All that can fail comes first.
InstanceTable::Change InstanceTable::Take() {
  const auto found = m_entries.find(m_queue.front());
  Entry& entry = found->second;
  const bool known = !entry.payload.empty();
  Change change{found->first, {}, entry.payload, entry.announced};
  change.kinds =
      Diff(entry.announced == NodeVersion{} ? nullptr : &entry.announced, known ? &entry.good : nullptr);
  m_queue.pop_front();
  entry.queued = false;
  entry.announced = known ? entry.good : NodeVersion{};
  if (!known && !entry.quarantined) m_entries.erase(found);
  return change;
}

void InstanceTable::TakeBack(const Change& change) {
  Entry& entry = m_entries[change.id];
  entry.announced = change.before;
  Queue(change.id, entry);
}

void InstanceTable::SetPayload(const ServiceId& id, Entry& entry, std::string payload) {
  const bool wasKnown = !entry.payload.empty();
  const bool isKnown = !payload.empty();
  entry.payload = std::move(payload);
  ++m_revision;
  if (isKnown && !wasKnown) {
    entry.position = static_cast<std::uint32_t>(m_known.size());
    m_known.push_back(id);
  } else if (wasKnown && !isKnown) {  // the last one takes its place
    const ServiceId last = m_known.back();
    m_known[entry.position] = last;
    m_entries.find(last)->second.position = entry.position;
    m_known.pop_back();
  }
}

void InstanceTable::SetHeld(Entry& entry, bool held) {
  if (held && !entry.held) ++m_held;
  if (!held && entry.held) --m_held;
  entry.held = held;
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
