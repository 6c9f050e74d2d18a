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
  int cycles;                      // in each round: a join of each kind, an update and a removal
  std::chrono::milliseconds idle;  // before each write
  bool awake;                      // threads and processors
};

constexpr std::array<Pace, 2> kPaces{{{"back to back", 200, std::chrono::milliseconds(0), true},
                                      {"20 ms apart", 60, std::chrono::milliseconds(20), false}}};

/// A told join is one that its partition is told of.
enum Write : std::uint8_t { kJoin, kUpdate, kRemoval, kToldJoin };

constexpr std::array<const char*, 4> kNames{"join", "update", "removal", "told join"};
constexpr std::array<std::optional<Limit>, kNames.size()> kLimits{
    Limit{Limit::kRatio, 1.1}, Limit{Limit::kRatio, 1.1}, std::nullopt, std::nullopt};
/// Of a removal, in microseconds: nothing is read for it, and of so little a ratio would say nothing.
constexpr double kMostOverThreaded = 80;
/// Of a join that its partition is told of, in proportion to one that it is not told of, where trips are what it takes:
/// one fewer. Apart, most of it is waking threads, before the first read is under way.
constexpr double kMostOfUntold = 0.8;

using Latencies = std::array<std::vector<double>, kNames.size()>;  // microseconds, of one round

struct Percentiles {  // of each round: what disturbs the machine for a moment then spoils one of them only
  std::array<Samples, kNames.size()> p50;
  std::array<Samples, kNames.size()> p99;
};

void Idle(std::chrono::milliseconds pause) {
  if (pause.count() > 0) std::this_thread::sleep_for(pause);
}

/// The tally has heard of all instances that there are.
Latencies Measure(const Pace& pace, RawWriter& writer, Tally& tally) {
  const std::string bytes = NodeBytes(200);
  const std::string changed = NodeBytes(210);
  Latencies latencies;
  const auto time = [&](Write what, Tally::Kind kind, const auto& write) {
    auto wanted = tally.Heard();
    ++wanted[kind];
    Idle(pace.idle);
    const auto start = Clock::now();
    write();
    writer.Finish();
    latencies[what].push_back(Micros(tally.Await(wanted) - start).count());
  };
  for (int i = 0; i < pace.cycles; ++i) {
    const std::string path = details::InstancePath(details::ServicePath(kService), MakeServiceId());
    time(kJoin, Tally::kAdded, [&] { writer.Create(path, bytes); });
    time(kUpdate, Tally::kModified, [&] { writer.Set(path, changed); });
    time(kRemoval, Tally::kRemoved, [&] { writer.Delete(path); });
    time(kToldJoin, Tally::kAdded, [&] { writer.Join(path, bytes); });
    time(kRemoval, Tally::kRemoved, [&] { writer.Delete(path); });
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
    for (std::size_t what = 0; what < latencies.size(); ++what) {
      figures[pace].p50[what][side].push_back(Percentile(latencies[what], 0.5));
      figures[pace].p99[what][side].push_back(Percentile(latencies[what], 0.99));
    }
  }
}

void Print(const Pace& pace, const Percentiles& percentiles) {
  const std::string event = std::string("event latency, ") + pace.name + ", ";
  std::array<Sides<double>, kNames.size()> p50;
  for (std::size_t what = 0; what < kNames.size(); ++what) {
    const std::string name = event + kNames[what];
    p50[what] = Medians(percentiles.p50[what]);
    PrintSides(name + " p50", "us", p50[what], pace.awake ? std::nullopt : kLimits[what]);
    PrintSides(name + " p99", "us", Medians(percentiles.p99[what]));
  }
  PrintFigure(event + "removal p50 - threaded", "us", p50[kRemoval][kHalden] - p50[kRemoval][kThreaded],
              pace.awake ? std::nullopt : std::optional(kMostOverThreaded));
  PrintFigure(event + "join told / not told p50", "%", 100 * p50[kToldJoin][kHalden] / p50[kJoin][kHalden],
              pace.awake ? std::optional(100 * kMostOfUntold) : std::nullopt);
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
