// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "support/truth_checker.h"

#include <optional>
#include <sstream>

#include "support/ensemble_test.h"

namespace zr::halden::test {

namespace {

/// What is in one view and not, or not so, in the other.
std::string Difference(const std::map<ServiceId, std::string>& view,
                       const std::map<ServiceId, std::optional<std::string>>& truth) {
  std::ostringstream out;
  for (const auto& [id, data] : truth) {
    const auto seen = view.find(id);
    if (data && seen == view.end()) out << " lacks " << id;
    if (data && seen != view.end() && seen->second != *data) out << " has another " << id;
  }
  for (const auto& [id, data] : view) {
    if (!truth.contains(id)) out << " still has " << id;
  }
  return out.str();
}

}  // namespace

ServiceInstanceData Ledger::Write(const Key& key, const zr::String& host) {
  ServiceInstanceData data = MakeInstance(host);
  const std::lock_guard lock(m_mtx);
  data.set_start_time_ms(m_entries[key].incarnation);
  return data;
}

void Ledger::Delete(const Key& key) {
  const std::lock_guard lock(m_mtx);
  ++m_entries[key].incarnation;
}

void Ledger::DeleteAll(const zr::String& dcName) {
  const std::lock_guard lock(m_mtx);
  for (auto& [key, entry] : m_entries) {
    if (key.first != dcName) continue;
    if (entry.ofSession) {
      entry.doubtful = true;
    } else {
      ++entry.incarnation;
    }
  }
}

void Ledger::Doubt(const Key& key) {
  const std::lock_guard lock(m_mtx);
  Entry& entry = m_entries[key];
  entry.ofSession = entry.doubtful = true;
}

void Ledger::Settle() {
  const std::lock_guard lock(m_mtx);
  for (auto& [key, entry] : m_entries) entry.doubtful = false;
}

std::string Ledger::Objection(const Event& event, const ServiceInstanceData& before) const {
  const std::lock_guard lock(m_mtx);
  const auto found = m_entries.find({event.dcName, event.id});
  const Entry entry = found == m_entries.end() ? Entry() : found->second;
  const auto told = before.start_time_ms();
  if (entry.doubtful) return {};
  if (event.kind == EventKind::Removed && told >= entry.incarnation) return "nobody deleted it";
  if (event.kind == EventKind::Modified && told != event.data.start_time_ms())
    return "it was deleted between";
  return {};
}

void TruthChecker::Check(const Event& event) {
  const std::lock_guard lock(m_mtx);
  ++m_events;
  const auto* before = m_announced.Find({event.dcName, event.id});
  std::string objection = m_ledger->Objection(event, before != nullptr ? *before : ServiceInstanceData());
  if (!m_announced.Take(event)) objection = "illegal";
  if (objection.empty()) return;
  std::ostringstream text;
  text << event << ": " << objection;
  m_violations.push_back(text.str());
}

TruthChecker::View TruthChecker::Announced(const zr::String& dcName) const {
  const std::lock_guard lock(m_mtx);
  View view;
  for (const auto& [key, data] : m_announced.All()) {
    if (key.first == dcName) view[key.second] = data.SerializeAsString();
  }
  return view;
}

::testing::AssertionResult TruthChecker::AwaitTruth(const ServiceWatcher& watcher,
                                                    ZooKeeperClient& fresh) const {
  std::map<ServiceId, std::optional<std::string>> truth;
  for (const auto& [id, bytes] : fresh.ReadInstances(watcher.ServiceName())) {
    const auto data = DecodeInstance(bytes);
    truth[id] = data ? std::optional(data->SerializeAsString()) : std::nullopt;
  }
  const auto known = [&] {
    View view;
    ServiceInstanceData data;
    for (const auto& id : watcher.ListInstances()) {
      if (watcher.GetInstanceData(id, data)) view[id] = data.SerializeAsString();
    }
    return view;
  };
  const auto wrong = [&] {
    std::string text;
    if (watcher.Status().freshness != Freshness::Live) text += "; the watcher is not live";
    if (const auto missed = Difference(known(), truth); !missed.empty()) text += "; the watcher" + missed;
    const auto untold = Difference(Announced(watcher.DataCenterName()), truth);
    if (!untold.empty()) text += "; the observer" + untold;
    for (const auto& violation : Violations()) text += "; " + violation;
    return text;
  };
  Poll(kLimit, [&] { return wrong().empty() || !Violations().empty(); });
  const auto text = wrong();
  if (text.empty()) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << watcher.DataCenterName() << " of " << truth.size() << text;
}

std::vector<std::string> TruthChecker::Violations() const {
  const std::lock_guard lock(m_mtx);
  return m_violations;
}

std::uint64_t TruthChecker::Events() const {
  const std::lock_guard lock(m_mtx);
  return m_events;
}

void TruthChecker::StartOver(const zr::String& dcName) {
  const std::lock_guard lock(m_mtx);
  m_announced.Forget(dcName);
}

}  // namespace zr::halden::test
