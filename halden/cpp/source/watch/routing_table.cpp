// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "halden/routing_table.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <utility>

#include "base/chance.h"

namespace zr::halden {

namespace {

bool Contains(const std::vector<RoutingTable::InstancePtr>& instances,
              const RoutingTable::InstancePtr& wanted) {
  return std::any_of(instances.begin(), instances.end(), [&](const auto& one) {
    return one && one->id == wanted->id && one->dcName == wanted->dcName;
  });
}

}  // namespace

RoutingTable::RoutingTable(std::vector<zr::String> order) : m_order(std::move(order)) {}

void RoutingTable::Apply(const ServiceEvent& event) {
  const std::lock_guard lock(m_mtx);
  DataCenter& dataCenter = m_dataCenters[event.dcName];
  m_sorted = false;
  if (!event.IsInstance()) {
    dataCenter.freshness = event.status.watcher.freshness;
  } else if (event.kind == ServiceEvent::Kind::Removed) {
    dataCenter.instances.erase(event.id);
  } else {
    dataCenter.instances[event.id] = std::make_shared<const ServiceInstance>(
        ServiceInstance{event.dcName, event.id, event.data, dataCenter.freshness, false});
  }
}

void RoutingTable::Forget(const zr::String& dcName) {
  const std::lock_guard lock(m_mtx);
  m_dataCenters.erase(dcName);
  m_sorted = false;
}

RoutingTable::InstancePtr RoutingTable::Pick(const std::vector<InstancePtr>& tried) const {
  const std::lock_guard lock(m_mtx);
  if (!m_sorted) Sort();
  for (const auto& tier : m_tiers) {
    if (auto drawn = Draw(tier, tried)) return drawn;
  }
  return tried.empty() || m_tiers.empty() ? nullptr : Draw(m_tiers.front(), {});
}

std::size_t RoutingTable::Size() const {
  const std::lock_guard lock(m_mtx);
  std::size_t size = 0;
  for (const auto& [name, dataCenter] : m_dataCenters) size += dataCenter.instances.size();
  return size;
}

/// m_mtx is held.
void RoutingTable::Sort() const {
  std::vector<const DataCenter*> inOrder;
  for (const auto& name : m_order) {
    const auto found = m_dataCenters.find(name);
    if (found != m_dataCenters.end()) inOrder.push_back(&found->second);
  }
  for (const auto& [name, dataCenter] : m_dataCenters) {
    if (std::find(m_order.begin(), m_order.end(), name) == m_order.end()) inOrder.push_back(&dataCenter);
  }
  std::array<std::vector<Tier>, 4> ranks;  // live, not live, degraded and live, degraded and not live
  for (const DataCenter* dataCenter : inOrder) {
    std::array<Tier, 2> tiers;  // well, degraded
    for (const auto& [id, instance] : dataCenter->instances) {
      Tier& tier = tiers[IsDegraded(instance->data) ? 1 : 0];
      tier.upTo.push_back((tier.upTo.empty() ? 0 : tier.upTo.back()) + WeightOf(instance->data));
      tier.instances.push_back(instance);
    }
    const std::size_t rank = dataCenter->freshness == Freshness::Live ? 0 : 1;
    for (const std::size_t degraded : {0U, 1U}) {
      if (!tiers[degraded].instances.empty())
        ranks[2 * degraded + rank].push_back(std::move(tiers[degraded]));
    }
  }
  m_tiers.clear();
  for (auto& rank : ranks) std::move(rank.begin(), rank.end(), std::back_inserter(m_tiers));
  m_sorted = true;
}

/// Null when all of them were tried. A few draws find one, unless most were.
RoutingTable::InstancePtr RoutingTable::Draw(const Tier& tier, const std::vector<InstancePtr>& tried) {
  constexpr int draws = 8;
  for (int i = 0; i < draws; ++i) {
    const auto drawn = static_cast<std::uint64_t>(details::Chance() * static_cast<double>(tier.upTo.back()));
    const auto place = std::upper_bound(tier.upTo.begin(), tier.upTo.end() - 1, drawn);
    const auto& instance = tier.instances[static_cast<std::size_t>(place - tier.upTo.begin())];
    if (!Contains(tried, instance)) return instance;
  }
  const auto left = std::find_if(tier.instances.begin(), tier.instances.end(),
                                 [&](const auto& instance) { return !Contains(tried, instance); });
  return left == tier.instances.end() ? nullptr : *left;
}

}  // namespace zr::halden
