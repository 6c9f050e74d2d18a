// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// How time and memory grow with the instances of one data centre, up to 100,000 on a server with its usual limits:
// first load, a join, memory, and the way back after a lost connection and a lost session.
#include <fmt/format.h>
#include <malloc.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "bench.h"
#include "layout.h"
#include "raw_client.h"
#include "support/await.h"

namespace zr::halden::bench {

namespace {

constexpr std::size_t kLargest = 100'000;
constexpr int kJoins = 100;  // in each round

struct Size {
  std::vector<double> load;  // milliseconds
  std::vector<double> join;  // microseconds
};

void Round(const Server& server, const Follow& follow, RawWriter& writer, std::size_t instances, Size& size) {
  const std::string bytes = NodeBytes(200);
  Tally tally;
  const auto start = Clock::now();
  const auto follower = follow(server, tally);
  size.load.push_back(Millis(tally.Await({instances, 0, 0}) - start).count());
  for (std::size_t i = 1; i <= kJoins; ++i) {
    const std::string path = details::InstancePath(details::ServicePath(kService), MakeServiceId());
    const auto sent = Clock::now();
    writer.Create(path, bytes);
    writer.Finish();
    size.join.push_back(Micros(tally.Await({instances + i, 0, 0}) - sent).count());
    writer.Delete(path);
    writer.Finish();
    tally.Await({instances + i, 0, i});
  }
}

struct Sizes {
  Size raw;
  Size halden;
};

Sizes Grow(const Server& server, std::size_t instances) {
  RawWriter writer(server.ConnectString());
  Sizes sizes;
  Size warmUp;
  Round(server, FollowRaw, writer, instances, warmUp);
  for (int round = 0; round < kRounds; ++round) {
    Round(server, FollowRaw, writer, instances, sizes.raw);
    Round(server, FollowHalden, writer, instances, sizes.halden);
  }
  const auto perInstance = [instances](const Size& size) {
    return Median(size.load) * 1000 / static_cast<double>(instances);
  };
  PrintRatio(fmt::format("first load of {}, for each instance", instances), "us", perInstance(sizes.raw),
             perInstance(sizes.halden), 1.3);
  PrintRatio(fmt::format("join latency at {}, p50", instances), "us", Median(sizes.raw.join),
             Median(sizes.halden.join), std::nullopt);
  return sizes;
}

double ResidentBytes() {
  std::ifstream statm("/proc/self/statm");
  double total = 0;
  double resident = 0;
  statm >> total >> resident;
  return resident * static_cast<double>(sysconf(_SC_PAGESIZE));
}

/// What the process grows by for each instance it follows.
void Memory(const Server& server, const Follow& follow, const char* whose, std::optional<double> limit) {
  malloc_trim(0);
  const double resident = ResidentBytes();
  const double heap = static_cast<double>(mallinfo2().uordblks);
  Tally tally;
  const auto follower = follow(server, tally);
  tally.Await({kLargest, 0, 0});
  const auto count = static_cast<double>(kLargest);
  PrintFigure(fmt::format("memory at {}, {}: resident, each", kLargest, whose), "B",
              (ResidentBytes() - resident) / count, limit);
  PrintFigure(fmt::format("memory at {}, {}: of it on the heap", kLargest, whose), "B",
              (static_cast<double>(mallinfo2().uordblks) - heap) / count);
}

/// Cuts this process's connections to the server; the server runs on.
void DropConnections(const Server& server) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const int descriptor = std::atoi(entry.path().filename().c_str());
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    if (getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &length) != 0) continue;
    if (peer.sin_family == AF_INET && ntohs(peer.sin_port) == server.Port()) shutdown(descriptor, SHUT_RDWR);
  }
}

template <typename Harm>
double Recovery(const ServiceWatcher& watcher, const Harm& harm) {
  const auto before = watcher.Status().resyncs;
  return Time<Millis>([&] {
    harm();
    const bool live = test::Poll(kLimit, [&] {
      const auto status = watcher.Status();
      return status.resyncs > before && status.freshness == Freshness::Live;
    });
    Require(live, "the watcher is not live again");
  });
}

void Recoveries(const Server& server, double rawLoad) {
  Tally tally;
  HaldenFollower follower(server, tally);
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
  PrintRatio(at + "connection dropped (raw: load)", "ms", rawLoad, Median(dropped), std::nullopt);
  PrintRatio(at + "session expired (raw: load)", "ms", rawLoad, Median(expired), std::nullopt);
}

}  // namespace

void BenchScale() {
  const Servers servers = StartServers(3, "1g");
  const Server& largest = *servers.back();
  Populate(largest, kService, kLargest);
  Memory(largest, FollowHalden, "halden", 1024);
  Memory(largest, FollowRaw, "raw client", std::nullopt);
  std::vector<Sizes> sizes;
  for (std::size_t i = 0, instances = 1000; i < servers.size(); ++i, instances *= 10) {
    if (i + 1 < servers.size()) Populate(*servers[i], kService, instances);
    sizes.push_back(Grow(*servers[i], instances));
  }
  PrintFigure("join latency at 100,000 against at 1,000", "x",
              Median(sizes.back().halden.join) / Median(sizes.front().halden.join), 1.5);
  Recoveries(largest, Median(sizes.back().raw.load));
}

}  // namespace zr::halden::bench
