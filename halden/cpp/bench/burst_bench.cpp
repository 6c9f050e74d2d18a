// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// 3,000 writes at once on a service of 10,000, joins, updates and removals mixed, until the view is right. No
// instance is written twice, so that it is right when every change has been told.
#include "bench.h"
#include "model/layout.h"
#include "raw_client.h"

namespace zr::halden::bench {

namespace {

constexpr std::size_t kOfEachKind = 1000;

/// `paths`: the instances there are, before and after.
double Round(Side side, const Server& server, RawWriter& writer, std::vector<std::string>& paths) {
  const std::string bytes = NodeBytes(200);
  const std::string changed = NodeBytes(210);
  std::vector<std::string> joins;
  for (std::size_t i = 0; i < kOfEachKind; ++i) {
    joins.push_back(details::InstancePath(details::ServicePath(kService), MakeServiceId()));
  }
  Tally tally;
  const auto follower = Follow(side, server.ConnectString(), tally);
  tally.Await({paths.size(), 0, 0});
  const auto start = Clock::now();
  for (std::size_t i = 0; i < kOfEachKind; ++i) {
    writer.Create(joins[i], bytes);
    writer.Set(paths[kOfEachKind + i], changed);
    writer.Delete(paths[i]);
  }
  writer.Finish();
  const Millis took = tally.Await({paths.size() + kOfEachKind, kOfEachKind, kOfEachKind}) - start;
  paths.erase(paths.begin(), paths.begin() + kOfEachKind);
  paths.insert(paths.end(), joins.begin(), joins.end());
  return took.count();
}

}  // namespace

void BenchBurst() {
  const Servers servers = StartServers(1);
  const Server& server = *servers.front();
  auto paths = Populate(server, kService, kPerDataCenter);
  RawWriter writer(server.ConnectString());
  Samples millis;
  Round(kThreaded, server, writer, paths);  // first-time costs
  for (int round = 0; round < kRounds; ++round) {
    for (const Side side : kSides) millis[side].push_back(Round(side, server, writer, paths));
  }
  PrintSides("burst of 3,000 writes until the view is right", "ms", Medians(millis),
             Limit{Limit::kRatio, 1.1});
}

}  // namespace zr::halden::bench
