// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// From the sending of one write to the observer's call for it, one write at a time, on a service of 10,000: back to
// back, when threads and processors are still awake, and apart, when they must be woken, as they must in real use.
#include <thread>

#include "bench.h"
#include "model/layout.h"
#include "raw_client.h"

namespace zr::halden::bench {

namespace {

struct Pace {
  const char* name;
  int cycles;                      // in each round: a join, an update and a removal
  std::chrono::milliseconds idle;  // before each write
  bool judged;
};

constexpr std::array<Pace, 2> kPaces{{{"back to back", 200, std::chrono::milliseconds(0), false},
                                      {"20 ms apart", 60, std::chrono::milliseconds(20), true}}};

constexpr std::array<const char*, 3> kNames{"join", "update", "removal"};
constexpr std::array<std::optional<Limit>, 3> kLimits{Limit{Limit::kRatio, 1.1}, Limit{Limit::kRatio, 1.1},
                                                      std::nullopt};
/// Of a removal, in microseconds: nothing is read for it, and of so little a ratio would say nothing.
constexpr double kMostOverThreaded = 80;

using Latencies = std::array<std::vector<double>, 3>;  // microseconds, of one round

struct Percentiles {  // of each round: what disturbs the machine for a moment then spoils one of them only
  std::array<Samples, 3> p50;
  std::array<Samples, 3> p99;
};

void Idle(std::chrono::milliseconds pause) {
  if (pause.count() > 0) std::this_thread::sleep_for(pause);
}

/// The tally has heard of all instances that there are.
Latencies Measure(const Pace& pace, RawWriter& writer, Tally& tally) {
  const std::string bytes = NodeBytes(200);
  const std::string changed = NodeBytes(210);
  Latencies latencies;
  const auto time = [&](Tally::Kind kind, const auto& write) {
    auto wanted = tally.Heard();
    ++wanted[kind];
    Idle(pace.idle);
    const auto start = Clock::now();
    write();
    writer.Finish();
    latencies[kind].push_back(Micros(tally.Await(wanted) - start).count());
  };
  for (int i = 0; i < pace.cycles; ++i) {
    const std::string path = details::InstancePath(details::ServicePath(kService), MakeServiceId());
    time(Tally::kAdded, [&] { writer.Create(path, bytes); });
    time(Tally::kModified, [&] { writer.Set(path, changed); });
    time(Tally::kRemoved, [&] { writer.Delete(path); });
  }
  return latencies;
}

using Figures = std::array<Percentiles, kPaces.size()>;

void Round(Side side, const Server& server, RawWriter& writer, Figures& figures) {
  Tally tally;
  const auto follower = Follow(side, server.ConnectString(), tally);
  tally.Await({kPerDataCenter, 0, 0});
  for (std::size_t pace = 0; pace < kPaces.size(); ++pace) {
    const Latencies latencies = Measure(kPaces[pace], writer, tally);
    for (std::size_t kind = 0; kind < latencies.size(); ++kind) {
      figures[pace].p50[kind][side].push_back(Percentile(latencies[kind], 0.5));
      figures[pace].p99[kind][side].push_back(Percentile(latencies[kind], 0.99));
    }
  }
}

void Print(const Pace& pace, const Percentiles& percentiles) {
  for (std::size_t kind = 0; kind < kNames.size(); ++kind) {
    const std::string name = std::string("event latency, ") + pace.name + ", " + kNames[kind];
    const auto p50 = Medians(percentiles.p50[kind]);
    PrintSides(name + " p50", "us", p50, pace.judged ? kLimits[kind] : std::nullopt);
    PrintSides(name + " p99", "us", Medians(percentiles.p99[kind]));
    if (kind != Tally::kRemoved) continue;
    PrintFigure(name + " p50 - threaded", "us", p50[kHalden] - p50[kThreaded],
                pace.judged ? std::optional(kMostOverThreaded) : std::nullopt);
  }
}

}  // namespace

void BenchLatency() {
  const Servers servers = StartServers(1);
  const Server& server = *servers.front();
  Populate(server, kService, kPerDataCenter);
  RawWriter writer(server.ConnectString());
  Figures figures;
  Round(kThreaded, server, writer, figures);  // first-time costs
  figures = {};
  for (int round = 0; round < kRounds; ++round) {
    for (const Side side : kSides) Round(side, server, writer, figures);
  }
  for (std::size_t pace = 0; pace < kPaces.size(); ++pace) Print(kPaces[pace], figures[pace]);
}

}  // namespace zr::halden::bench
