// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "agent/view/service_view.h"

#include <algorithm>
#include <charconv>
#include <tuple>

#include "render/json.h"

namespace zr::halden::agent {

namespace {

/// What makes a state worth telling. What only counts is not.
auto NewsOf(const DataCenterStatus& status) {
  return std::make_tuple(status.connection.state, status.connection.sessionId,
                         status.connection.lastErrorText, status.watcher.freshness, status.watcher.staleSince,
                         status.watcher.held != 0, status.watcher.quarantined, status.watcher.lastError);
}

std::string StateObject(const DataCenterStatus& status) {
  std::string line = tool::StateLine(status);
  line.pop_back();
  return line;
}

/// Its keys behind "type".
std::string StateText(const DataCenterStatus& status) {
  constexpr std::string_view type = R"({"type":"state",)";
  return StateObject(status).substr(type.size());
}

std::string InstanceText(const ServiceInstanceData& data) {
  return tool::DataObject(data).substr(1);
}

std::string Objects(const ServiceView::DataCenters& states) {
  std::string text;
  for (const auto& [name, status] : states) text += (text.empty() ? "" : ",") + StateObject(status);
  return text;
}

}  // namespace

ServiceView::ServiceView(std::string service, std::string epoch)
    : m_service(std::move(service)),
      m_epoch(std::move(epoch)),
      m_serviceKey("\"service\":" + tool::JsonText(m_service) + ',') {}

void ServiceView::Put(std::string_view dataCenter, const ServiceId& id, const ServiceInstanceData& data) {
  std::string text = InstanceText(data);
  const auto entry = m_index.find(Key{dataCenter, id});
  if (entry == m_index.end()) {
    KeepListStates();
    ++m_instances;
    ++m_states[std::string(dataCenter)].watcher.instances;
    Add(dataCenter, id, std::move(text));
  } else {
    Item& item = (*entry)->second;
    if (item.text == text && !item.held) return;
    item.text = std::move(text);
    item.held = false;
    Touch(entry);
  }
  MoveList();
}

void ServiceView::Remove(std::string_view dataCenter, const ServiceId& id, Clock::time_point now) {
  const auto entry = m_index.find(Key{dataCenter, id});
  if (entry == m_index.end()) return;
  --m_instances;
  --m_states[std::string(dataCenter)].watcher.instances;
  Bury(entry, now);
  MoveList();
}

void ServiceView::SetHeld(std::string_view dataCenter, const std::vector<ServiceId>& held) {
  const std::set<ServiceId> ids(held.begin(), held.end());
  std::vector<Index::iterator> moved;
  for (auto entry = m_index.upper_bound(Key{dataCenter, std::nullopt});
       entry != m_index.end() && *(*entry)->second.dataCenter == dataCenter; ++entry) {
    if ((*entry)->second.held != ids.contains(*(*entry)->second.id)) moved.push_back(entry);
  }
  for (const auto& entry : moved) {
    (*entry)->second.held = !(*entry)->second.held;
    Touch(entry);
  }
  if (!moved.empty()) MoveList();
}

void ServiceView::SetState(DataCenterStatus status) {
  KeepListStates();
  const auto entry = m_index.find(Key{status.name, std::nullopt});
  const bool isNew = entry == m_index.end();
  DataCenterStatus& known = m_states[status.name];
  status.watcher.instances = known.watcher.instances;
  const bool isNews = NewsOf(known) != NewsOf(status);
  const bool movesList = isNew || known.watcher.freshness != status.watcher.freshness;
  known = std::move(status);
  if (isNew) {
    Add(known.name, std::nullopt, StateText(known));
  } else if (isNews) {
    (*entry)->second.text = StateText(known);
    Touch(entry);
  }
  if (movesList) MoveList();
}

void ServiceView::RemoveDataCenter(std::string_view dataCenter, Clock::time_point now) {
  const auto first = m_index.lower_bound(Key{dataCenter, std::nullopt});
  auto end = first;
  std::vector<Index::iterator> gone;  // its state last
  for (; end != m_index.end() && *(*end)->second.dataCenter == dataCenter; ++end) gone.push_back(end);
  std::reverse(gone.begin(), gone.end());
  for (const auto& entry : gone) {
    if ((*entry)->second.id) --m_instances;
    Bury(entry, now);
  }
  if (const auto state = m_states.find(dataCenter); state != m_states.end()) m_states.erase(state);
  MoveList();
}

void ServiceView::Add(std::string_view dataCenter, const std::optional<ServiceId>& id, std::string text) {
  Item item{&*m_names.emplace(dataCenter).first, id, false, TakeSlot(), ++m_head, std::move(text)};
  m_index.insert(m_order.emplace_hint(m_order.end(), m_head, std::move(item)));
}

/// Moves it to the end of the order. The index goes by what does not change.
void ServiceView::Touch(Index::iterator entry) {
  auto node = m_order.extract(*entry);
  node.key() = ++m_head;
  m_order.insert(m_order.end(), std::move(node));
}

void ServiceView::Bury(Index::iterator entry, Clock::time_point now) {
  const Order::iterator place = *entry;
  const Item& item = place->second;
  m_tombstones.push_back({item.dataCenter, item.id, item.slot, item.added, ++m_head, now});
  m_index.erase(entry);
  m_order.erase(place);
  DropTombstones(now);
}

void ServiceView::DropTombstones(Clock::time_point now) {
  while (m_tombstones.size() > kMostTombstones ||
         (!m_tombstones.empty() && m_tombstones.front().at + kTombstoneAge < now)) {
    m_horizon = m_tombstones.front().removed;
    m_freeSlots.push_back(m_tombstones.front().slot);
    m_tombstones.pop_front();
  }
}

void ServiceView::MoveList() {
  m_listRevision = m_head;
  m_listMoved = true;
}

/// Before states change without moving the list.
void ServiceView::KeepListStates() const {
  if (!m_listMoved) return;
  m_listStates = Objects(m_states);
  m_listMoved = false;
}

std::uint32_t ServiceView::TakeSlot() {
  if (m_freeSlots.empty()) return m_slots++;
  const std::uint32_t slot = m_freeSlots.back();
  m_freeSlots.pop_back();
  return slot;
}

std::string ServiceView::Tag(Revision revision) const {
  return m_epoch + '-' + std::to_string(revision);
}

std::optional<Revision> ServiceView::FromTag(std::string_view tag) const {
  const auto dash = tag.rfind('-');
  if (dash == std::string_view::npos || tag.substr(0, dash) != m_epoch) return std::nullopt;
  const auto number = tag.substr(dash + 1);
  Revision revision = 0;
  const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), revision);
  const bool whole = error == std::errc() && end == number.data() + number.size();
  if (!whole || revision > m_head) return std::nullopt;
  return revision;
}

bool ServiceView::WasRead() const {
  return !m_states.empty() && std::none_of(m_states.begin(), m_states.end(), [](const auto& state) {
    const auto freshness = state.second.watcher.freshness;
    return freshness == Freshness::NeverSynchronized || freshness == Freshness::Restored;
  });
}

std::string ServiceView::List(const Filter& filter) const {
  KeepListStates();
  std::string text = '{' + m_serviceKey + "\"revision\":\"" + Tag(m_listRevision) + "\",\"data_centers\":[" +
                     m_listStates + "],\"instances\":[";
  bool first = true;
  for (const auto& entry : m_index) {
    const Item& item = entry->second;
    if (!item.id || !filter.TakesDataCenter(*item.dataCenter) || !filter.Takes(item.text)) continue;
    if (!first) text += ',';
    first = false;
    text += Object(item, {});
  }
  return text + "]}";
}

std::string ServiceView::StatusObject() const {
  return '{' + m_serviceKey + "\"revision\":\"" + Tag(m_head) + "\",\"data_centers\":[" + Objects(m_states) +
         "]}";
}

std::optional<std::string> ServiceView::Instance(std::string_view dataCenter, const ServiceId& id) const {
  const auto entry = m_index.find(Key{dataCenter, id});
  if (entry == m_index.end()) return std::nullopt;
  return Object((*entry)->second, {});
}

void ServiceView::Visit(const Filter& filter, const Visitor& visitor) const {
  for (const auto& entry : m_index) {
    const Item& item = entry->second;
    if (!item.id || !filter.TakesDataCenter(*item.dataCenter) || !filter.Takes(item.text)) continue;
    visitor(*item.dataCenter, *item.id, item.held, item.text);
  }
}

std::string ServiceView::Object(const Item& item, std::string_view service) const {
  std::string text = item.id ? R"({"type":"instance",)" : R"({"type":"state",)";
  text += service;
  if (item.id) {
    text += "\"data_center\":" + tool::JsonText(*item.dataCenter) + ",\"id\":\"" +
            halden::ToString(*item.id) + (item.held ? "\",\"held\":true," : "\",\"held\":false,");
  }
  return text + item.text;
}

}  // namespace zr::halden::agent
