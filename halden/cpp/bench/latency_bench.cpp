// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// From the sending of one write to the observer's call for it, one write at a time, on a service of 10,000.
#include "bench.h"
#include "layout.h"
#include "raw_client.h"

namespace zr::halden::bench {

namespace {

constexpr int kCycles = 200;  // in each round: a join, an update and a removal
constexpr std::array<const char*, 3> kNames{"join", "update", "removal"};

using Latencies = std::array<std::vector<double>, 3>;  // microseconds, of one round

struct Percentiles {  // of each round: what disturbs the machine for a moment then spoils one of them only
  Latencies p50;
  Latencies p99;
};

template <typename Write>
double Latency(RawWriter& writer, Tally& tally, Tally::Kind kind, const Write& write) {
  auto wanted = tally.Heard();
  ++wanted[kind];
  const auto start = Clock::now();
  write();
  writer.Finish();
  return Micros(tally.Await(wanted) - start).count();
}

void Round(const Server& server, const Follow& follow, RawWriter& writer, Percentiles& percentiles) {
  const std::string bytes = NodeBytes(200);
  const std::string changed = NodeBytes(210);
  Latencies latencies;
  Tally tally;
  const auto follower = follow(server, tally);
  tally.Await({kPerDataCenter, 0, 0});
  for (int i = 0; i < kCycles; ++i) {
    const std::string path = details::InstancePath(details::ServicePath(kService), MakeServiceId());
    latencies[Tally::kAdded].push_back(
        Latency(writer, tally, Tally::kAdded, [&] { writer.Create(path, bytes); }));
    latencies[Tally::kModified].push_back(
        Latency(writer, tally, Tally::kModified, [&] { writer.Set(path, changed); }));
    latencies[Tally::kRemoved].push_back(
        Latency(writer, tally, Tally::kRemoved, [&] { writer.Delete(path); }));
  }
  for (std::size_t i = 0; i < latencies.size(); ++i) {
    percentiles.p50[i].push_back(Percentile(latencies[i], 0.5));
    percentiles.p99[i].push_back(Percentile(latencies[i], 0.99));
  }
}

}  // namespace

void BenchLatency() {
  const Servers servers = StartServers(1);
  const Server& server = *servers.front();
  Populate(server, kService, kPerDataCenter);
  RawWriter writer(server.ConnectString());
  Percentiles raw;
  Percentiles halden;
  Round(server, FollowRaw, writer, raw);  // first-time costs
  raw = {};
  for (int round = 0; round < kRounds; ++round) {
    Round(server, FollowRaw, writer, raw);
    Round(server, FollowHalden, writer, halden);
  }
  for (std::size_t i = 0; i < kNames.size(); ++i) {
    const std::string name = std::string("event latency, ") + kNames[i];
    PrintRatio(name + ", p50", "us", Median(raw.p50[i]), Median(halden.p50[i]), 1.3);
    PrintRatio(name + ", p99", "us", Median(raw.p99[i]), Median(halden.p99[i]), std::nullopt);
  }
}

}  // namespace zr::halden::bench
