// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "halden/routing_table.h"

#include <gtest/gtest.h>

#include <map>

namespace zr::halden {
namespace {

ServiceEvent Instance(const char* dcName, const char* host, std::uint32_t weight = 0, bool degraded = false) {
  ServiceEvent event;
  event.dcName = dcName;
  event.id = MakeServiceId();
  event.data.set_host(host);
  event.data.set_weight(weight);
  if (degraded) event.data.set_status_ext(messaging::halden::STATUS_EXT_DEGRADED);
  return event;
}

ServiceEvent Told(const char* dcName, Freshness freshness) {
  ServiceEvent event;
  event.kind = ServiceEvent::Kind::State;
  event.dcName = dcName;
  event.status.watcher.freshness = freshness;
  return event;
}

TEST(RoutingTableTest, TheLocalDataCenterIsLeftOnlyForWhatIsBetter) {
  RoutingTable table({"eu", "us"});
  EXPECT_EQ(table.Pick(), nullptr);
  auto local = Instance("eu", "local");
  table.Apply(Instance("ap", "unnamed"));
  table.Apply(Instance("us", "far"));
  table.Apply(local);
  const auto host = [&](const std::vector<RoutingTable::InstancePtr>& tried = {}) {
    return table.Pick(tried)->data.host();
  };
  EXPECT_EQ(host(), "local") << "in order, though nothing is live yet";
  for (const char* dcName : {"eu", "us", "ap"}) table.Apply(Told(dcName, Freshness::Live));
  EXPECT_EQ(host(), "local");
  EXPECT_EQ(host({table.Pick()}), "far");
  EXPECT_EQ(host({table.Pick(), table.Pick({table.Pick()})}), "unnamed");
  table.Apply(Told("eu", Freshness::Stale));
  EXPECT_EQ(host(), "far");
  table.Apply(Told("eu", Freshness::Live));
  local.data.set_status_ext(messaging::halden::STATUS_EXT_DEGRADED);
  local.kind = ServiceEvent::Kind::Modified;
  table.Apply(local);
  EXPECT_EQ(host(), "far");
  table.Forget("us");
  EXPECT_EQ(host(), "unnamed");
  table.Forget("ap");
  EXPECT_EQ(host({table.Pick()}), "local") << "rather one that was tried than none";
  local.kind = ServiceEvent::Kind::Removed;
  table.Apply(local);
  EXPECT_EQ(table.Pick(), nullptr);
}

TEST(RoutingTableTest, WeightsAreShares) {
  RoutingTable table({});
  for (const auto& [host, weight] : {std::pair("none", 0U), {"one", 1U}, {"eight", 8U}})
    table.Apply(Instance("eu", host, weight));
  std::map<std::string, int> picked;
  for (int i = 0; i < 10'000; ++i) ++picked[table.Pick()->data.host()];
  EXPECT_NEAR(picked["none"], 1000, 300);
  EXPECT_NEAR(picked["eight"], 8000, 300);
}

}  // namespace
}  // namespace zr::halden
