// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// How time and memory grow with the instances of one data centre, up to 100,000 on a server with its usual limits:
// first load, a join, memory, and the way back after a lost connection and a lost session.
#include <fmt/format.h>
#include <malloc.h>

#include "bench.h"
#include "halden/testing/poll.h"
#include "model/layout.h"
#include "raw_client.h"

namespace zr::halden::bench {

namespace {

constexpr std::size_t kLargest = 100'000;
constexpr int kJoins = 100;  // in each round

struct Size {
  Samples load;  // milliseconds
  Samples join;  // microseconds
};

void Round(Side side, const Server& server, RawWriter& writer, std::size_t instances, Size& size) {
  const std::string bytes = NodeBytes(200);
  Tally tally;
  const auto start = Clock::now();
  const auto follower = Follow(side, server.ConnectString(), tally);
  size.load[side].push_back(Millis(tally.Await({instances, 0, 0}) - start).count());
  for (std::size_t i = 1; i <= kJoins; ++i) {
    const std::string path = details::InstancePath(details::ServicePath(kService), MakeServiceId());
    const auto sent = Clock::now();
    writer.Create(path, bytes);
    writer.Finish();
    size.join[side].push_back(Micros(tally.Await({instances + i, 0, 0}) - sent).count());
    writer.Delete(path);
    writer.Finish();
    tally.Await({instances + i, 0, i});
  }
}

Size Grow(const Server& server, std::size_t instances) {
  RawWriter writer(server.ConnectString());
  Size size;
  Round(kThreaded, server, writer, instances, size);  // first-time costs
  size = {};
  for (int round = 0; round < kRounds; ++round) {
    for (const Side side : kSides) Round(side, server, writer, instances, size);
  }
  Sides<double> perInstance = Medians(size.load);
  for (double& time : perInstance) time *= 1000 / static_cast<double>(instances);
  const auto limit = instances == kLargest ? std::optional(Limit{Limit::kRatio, 1.1}) : std::nullopt;
  PrintSides(fmt::format("first load of {}, for each instance", instances), "us", perInstance, limit);
  PrintSides(fmt::format("join latency at {}, p50", instances), "us", Medians(size.join));
  return size;
}

/// What the process grows by for each instance it follows.
struct Growth {
  double resident;
  double onHeap;
};

Growth Memory(Side side, const Server& server) {
  malloc_trim(0);
  const double resident = ResidentBytes();
  const double heap = static_cast<double>(mallinfo2().uordblks);
  Tally tally;
  const auto follower = Follow(side, server.ConnectString(), tally);
  tally.Await({kLargest, 0, 0});
  const auto count = static_cast<double>(kLargest);
  return {(ResidentBytes() - resident) / count, (static_cast<double>(mallinfo2().uordblks) - heap) / count};
}

void BenchMemory(const Server& server) {
  Sides<double> resident{};
  Sides<double> onHeap{};
  // Ours first, while there is no freed memory to be used again.
  for (const Side side : {kHalden, kThreaded, kSingle}) {
    const Growth growth = Memory(side, server);
    resident[side] = growth.resident;
    onHeap[side] = growth.onHeap;
  }
  const std::string at = fmt::format("memory at {}: ", kLargest);
  PrintSides(at + "resident, each", "B", resident, Limit{Limit::kFigure, 693});
  PrintSides(at + "of it on the heap", "B", onHeap);
}

template <typename Harm>
double Recovery(const ServiceWatcher& watcher, const Harm& harm) {
  const auto before = watcher.Status().resyncs;
  return Time<Millis>([&] {
    harm();
    const bool live = testing::Poll(kLimit, [&] {
      const auto status = watcher.Status();
      return status.resyncs > before && status.freshness == Freshness::Live;
    });
    Require(live, "the watcher is not live again");
  });
}

/// `loads`: what reading everything takes the client library alone.
void Recoveries(const Server& server, Sides<double> loads) {
  Tally tally;
  HaldenFollower follower(server.ConnectString(), tally);
  tally.Await({kLargest, 0, 0});
  std::vector<double> dropped;
  std::vector<double> expired;
  for (int round = 0; round < kRounds; ++round) {
    dropped.push_back(Recovery(follower.Watcher(), [&] { DropConnections(server); }));
    expired.push_back(Recovery(follower.Watcher(), [&] { follower.Conn().ForceExpire(); }));
  }
  const auto status = follower.Conn().Status();
  Require(status.reconnects == kRounds && status.expiries == kRounds, "not what was done to the session");
  Require(tally.Heard() == Tally::Counts{kLargest, 0, 0}, "instances were told of that did not change");
  const std::string at = fmt::format("live again at {}, ", kLargest);
  loads[kHalden] = Median(dropped);
  PrintSides(at + "connection dropped (others: load)", "ms", loads);
  loads[kHalden] = Median(expired);
  PrintSides(at + "session expired (others: load)", "ms", loads);
}

}  // namespace

void BenchScale() {
  const Servers servers = StartServers(3, "1g");
  const Server& largest = *servers.back();
  Populate(largest, kService, kLargest);
  BenchMemory(largest);
  std::vector<Size> sizes;
  for (std::size_t i = 0, instances = 1000; i < servers.size(); ++i, instances *= 10) {
    if (i + 1 < servers.size()) Populate(*servers[i], kService, instances);
    sizes.push_back(Grow(*servers[i], instances));
  }
  PrintFigure("join latency at 100,000 against at 1,000", "x",
              Median(sizes.back().join[kHalden]) / Median(sizes.front().join[kHalden]), 1.5);
  Recoveries(largest, Medians(sizes.back().load));
}

}  // namespace zr::halden::bench
