// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// 3,000 writes at once on a service of 10,000, joins, updates and removals mixed, until the view is right. No
// instance is written twice, so that it is right when every change has been told. Near by and far away, and beside
// joins that their partitions are told of.
#include <fmt/format.h>

#include "bench.h"
#include "long_way.h"
#include "model/layout.h"
#include "raw_client.h"

namespace zr::halden::bench {

namespace {

constexpr std::size_t kOfEachKind = 1000;

enum Joins : std::uint8_t { kUntold, kTold };

struct Setting {
  std::chrono::milliseconds trip;
  int rounds;
  double mostOfUntold;  // of a burst with joins that their partitions are told of
};

constexpr std::array kSettings{Setting{std::chrono::milliseconds(0), kRounds, 1.25},
                               Setting{std::chrono::milliseconds(80), 3, 1.1}};

/// `paths`: the instances there are, before and after.
double Round(Side side, Joins joins, const std::string& hosts, RawWriter& writer,
             std::vector<std::string>& paths) {
  const std::string bytes = NodeBytes(200);
  const std::string changed = NodeBytes(210);
  std::vector<std::string> joining;
  for (std::size_t i = 0; i < kOfEachKind; ++i) {
    joining.push_back(details::InstancePath(details::ServicePath(kService), MakeServiceId()));
  }
  Tally tally;
  const auto follower = Follow(side, hosts, tally);
  tally.Await({paths.size(), 0, 0});
  const auto start = Clock::now();
  for (std::size_t i = 0; i < kOfEachKind; ++i) {
    joins == kTold ? writer.Join(joining[i], bytes) : writer.Create(joining[i], bytes);
    writer.Set(paths[kOfEachKind + i], changed);
    writer.Delete(paths[i]);
  }
  writer.Finish();
  const Millis took = tally.Await({paths.size() + kOfEachKind, kOfEachKind, kOfEachKind}) - start;
  paths.erase(paths.begin(), paths.begin() + kOfEachKind);
  paths.insert(paths.end(), joining.begin(), joining.end());
  return took.count();
}

void BenchSetting(const Setting& setting, const Server& server, RawWriter& writer,
                  std::vector<std::string>& paths) {
  const LongWay way(server.Port(), {.trip = setting.trip});
  const std::string hosts = setting.trip.count() > 0 ? way.ConnectString() : server.ConnectString();
  Samples millis;
  std::vector<double> told;
  Round(kThreaded, kTold, hosts, writer, paths);  // first-time costs
  for (int round = 0; round < setting.rounds; ++round) {
    for (const Side side : kSides) millis[side].push_back(Round(side, kUntold, hosts, writer, paths));
    told.push_back(Round(kHalden, kTold, hosts, writer, paths));
  }
  const std::string name = fmt::format("{} ms: burst of 3,000 writes", setting.trip.count());
  PrintSides(name + " until the view is right", "ms", Medians(millis), Limit{Limit::kRatio, 1.1});
  PrintFigure(name + ", joins told / not told", "%", 100 * Median(told) / Median(millis[kHalden]),
              100 * setting.mostOfUntold);
}

}  // namespace

void BenchBurst() {
  const Servers servers = StartServers(1);
  const Server& server = *servers.front();
  auto paths = Populate(server, kService, kPerDataCenter);
  RawWriter writer(server.ConnectString());
  for (const auto& setting : kSettings) BenchSetting(setting, server, writer, paths);
}

}  // namespace zr::halden::bench
