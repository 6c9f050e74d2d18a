// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "halden/event_queue.h"
#include "halden/service_id.h"
#include "halden/service_instance.h"
#include "zrstl/export.h"
#include "zrstl/string.h"

namespace zr::halden {

/// Which instance of a service the next request goes to: one of the local data centre, or of the next one where that
/// is stale or empty.
///
///     zr::halden::RoutingTable table({"eu-west", "us-east"});  // the local one first
///     while (const auto event = events->Pop()) table.Apply(*event);
///     ...
///     if (const auto instance = table.Pick()) Connect(zr::halden::Endpoint(instance->data));
///
/// Order: instances of live data centres, then of those that are not live (their instances may be gone); in each the
/// data centres as they were named, then the others by name. Degraded instances come after all that are not, in the
/// same order. Within a data centre the next one is drawn by weight (see WeightOf).
/// Threads: any thread may call any operation; none waits for anything but another's.
/// Cost: `Pick` after a change sorts what is known anew; without one it is a search.
class ZR_EXPORT RoutingTable {
 public:
  using InstancePtr = std::shared_ptr<const ServiceInstance>;

  /// `order`: data centres, the preferred one first.
  explicit RoutingTable(std::vector<zr::String> order);

  RoutingTable(const RoutingTable&) = delete;
  RoutingTable& operator=(const RoutingTable&) = delete;

  /// What an EventQueue hands out, of one service.
  void Apply(const ServiceEvent& event);
  /// A data centre that was disconnected, whose queue tells no removals.
  void Forget(const zr::String& dcName);

  /// By chance, as said above; null when there is none. Its `freshness` is that of when it was told. Not one
  /// of `tried`, those that did not answer just now, while there are others.
  InstancePtr Pick(const std::vector<InstancePtr>& tried = {}) const;

  std::size_t Size() const;

 private:
  struct DataCenter {
    Freshness freshness = Freshness::NeverSynchronized;
    std::map<ServiceId, InstancePtr> instances;
  };
  /// Instances that are as good as each other, and up to which of the sum of weights each is drawn.
  struct Tier {
    std::vector<InstancePtr> instances;
    std::vector<std::uint64_t> upTo;
  };

  void Sort() const;
  static InstancePtr Draw(const Tier& tier, const std::vector<InstancePtr>& tried);

  const std::vector<zr::String> m_order;

  mutable std::mutex m_mtx;  // guards all below
  std::map<zr::String, DataCenter> m_dataCenters;
  mutable std::vector<Tier> m_tiers;  // the best first
  mutable bool m_sorted = true;
};

}  // namespace zr::halden
