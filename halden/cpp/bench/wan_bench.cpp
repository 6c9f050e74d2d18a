// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// Far data centres, beside the client library alone with as many requests under way as there are to make: loads,
// events in round trips, a publisher's write during a load; and ways that are narrow, that jitter or stall.
#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <thread>

#include "bench.h"
#include "halden/global_service_watcher.h"
#include "halden/service_publisher.h"
#include "long_way.h"
#include "model/layout.h"
#include "raw_client.h"

namespace zr::halden::bench {

namespace {

using std::chrono::milliseconds;

constexpr std::array kTrips{milliseconds(1), milliseconds(10), milliseconds(80), milliseconds(200)};
constexpr std::size_t kUnlimited = 1'000'000;
constexpr double kMegabit = 1e6 / 8;

struct Service {
  const char* name;
  std::size_t instances;
};
constexpr std::array<Service, 3> kServices{{{"few", 10}, {"some", 1000}, {kService, kPerDataCenter}}};

int RoundsAt(milliseconds trip) {
  return trip < milliseconds(50) ? kRounds : 3;
}

double LoadBare(Side side, const std::vector<std::string>& hosts, const Service& service) {
  std::vector<std::unique_ptr<RawReader>> readers;
  const auto start = Clock::now();
  for (const auto& one : hosts) {
    readers.push_back(std::make_unique<RawReader>(side, one, nullptr, kUnlimited));
    readers.back()->Begin({details::ServicePath(service.name)});
  }
  std::size_t read = 0;
  for (const auto& reader : readers) read += reader->AwaitLoaded();
  const auto end = Clock::now();
  Require(read == hosts.size() * service.instances, "the client library alone has not read every instance");
  return Millis(end - start).count();
}

double LoadHalden(const std::string& hosts, const Service& service) {
  Tally tally;
  const auto start = Clock::now();
  HaldenFollower follower(hosts, tally, service.name);
  Require(follower.Watcher().AwaitSynchronized(kLimit), "the watcher is not synchronised");
  const auto end = Clock::now();
  Require(follower.Watcher().ListInstances().size() == service.instances, "not every instance is known");
  return Millis(end - start).count();
}

Samples LoadRounds(const std::string& hosts, const Service& service, int rounds) {
  Samples samples;
  for (int round = 0; round < rounds; ++round) {
    for (const Side side : kBareSides) samples[side].push_back(LoadBare(side, {hosts}, service));
    samples[kHalden].push_back(LoadHalden(hosts, service));
  }
  return samples;
}

constexpr double kMostTripsOfJoin = 1.6;

/// The follower is far away, the writer is not.
void BenchEvents(const Server& server, const std::string& hosts, milliseconds trip) {
  constexpr int cycles = 5;
  constexpr std::array<const char*, 4> names{"join", "update", "removal",
                                             "join that its partition is not told of"};
  std::array<Samples, names.size()> trips;
  const std::string bytes = NodeBytes(200);
  const std::string changed = NodeBytes(210);
  RawWriter writer(server.ConnectString());
  for (const Side side : kSides) {
    Tally tally;
    const auto follower = Follow(side, hosts, tally);
    tally.Await({kPerDataCenter, 0, 0});
    const auto time = [&](std::size_t what, Tally::Kind kind, const auto& write) {
      auto wanted = tally.Heard();
      ++wanted[kind];
      std::this_thread::sleep_for(2 * trip);  // what the write before it has begun is over
      const auto start = Clock::now();
      write();
      writer.Finish();
      trips[what][side].push_back(Millis(tally.Await(wanted) - start) / Millis(trip));
    };
    for (int i = 0; i < cycles; ++i) {
      const std::string path = details::InstancePath(details::ServicePath(kService), MakeServiceId());
      time(0, Tally::kAdded, [&] { writer.Join(path, bytes); });
      time(1, Tally::kModified, [&] { writer.Set(path, changed); });
      time(2, Tally::kRemoved, [&] { writer.Delete(path); });
      time(3, Tally::kAdded, [&] { writer.Create(path, bytes); });
      time(2, Tally::kRemoved, [&] { writer.Delete(path); });
    }
  }
  for (std::size_t what = 0; what < names.size(); ++what) {
    const bool judged = what == 0 && trip >= milliseconds(80);  // nearer, servers' own time counts
    PrintSides(fmt::format("{} ms: {}", trip.count(), names[what]), "trip", Medians(trips[what]),
               judged ? std::optional(Limit{Limit::kFigure, kMostTripsOfJoin}) : std::nullopt);
  }
}

enum class Moment : std::uint8_t { Beginning, Middle };

struct MomentName {
  Moment moment;
  const char* name;
};
constexpr std::array<MomentName, 2> kMoments{
    {{Moment::Beginning, "a publisher's write as a load begins"},
     {Moment::Middle, "a publisher's write in the middle of a load"}}};

/// How long until a change is confirmed that a publisher makes during a load, on the same connection. It is written,
/// and looked at.
std::vector<double> WriteDuringLoad(const std::string& hosts, const Service& service, Moment moment,
                                    int rounds) {
  std::vector<double> took;
  for (int round = 0; round < rounds; ++round) {
    const auto conn = MakeConnection(hosts);
    ServicePublisher publisher(conn, "writers", MakeServiceId());
    ServiceInstanceData data;
    data.set_service_name("writers");
    data.set_host("writer.example");
    publisher.Publish(data);
    conn->Start(nullptr);
    Require(publisher.AwaitPublished(kLimit), "not published");
    Tally tally;
    const auto observer = std::make_shared<TallyObserver>(tally);
    const auto watcher = std::make_shared<ServiceWatcher>(conn, service.name, nullptr);
    watcher->RegisterShared(observer);
    watcher->Start();
    if (moment == Moment::Middle) tally.Await({1, 0, 0});
    data.set_version("2");
    publisher.Publish(data);
    took.push_back(Time<Millis>([&] { Require(publisher.AwaitPublished(kLimit), "not published"); }));
    tally.Await({service.instances, 0, 0});
    watcher->UnregisterShared(observer);
    conn->Stop();
    conn->AwaitClosed(kLimit);
  }
  return took;
}

void BenchDistance(const Server& server, milliseconds trip) {
  const LongWay way(server.Port(), {.trip = trip});
  for (const auto& service : kServices) {
    PrintSides(fmt::format("{} ms: load of {}", trip.count(), service.instances), "ms",
               Medians(LoadRounds(way.ConnectString(), service, RoundsAt(trip))), Limit{Limit::kRatio, 1.1});
  }
  BenchEvents(server, way.ConnectString(), trip);
  for (const auto& [moment, name] : kMoments) {
    const double took = Median(WriteDuringLoad(way.ConnectString(), kServices[2], moment, 3));
    PrintFigure(fmt::format("{} ms: {}", trip.count(), name), "trip",
                took / static_cast<double>(trip.count()));
  }
}

/// All three at once, each at its own distance.
void BenchThree(const Servers& servers) {
  constexpr std::array trips{milliseconds(10), milliseconds(80), milliseconds(200)};
  std::vector<std::unique_ptr<LongWay>> ways;
  std::vector<std::string> hosts;
  const testing::TemporaryFolder folder;
  const zr::String config = folder.Path() / "halden.toml";
  std::ofstream out(config);
  out << "[data_centers]\n";
  for (std::size_t i = 0; i < servers.size(); ++i) {
    ways.push_back(std::make_unique<LongWay>(servers[i]->Port(), Distance{.trip = trips[i]}));
    hosts.push_back(ways.back()->ConnectString());
    out << kDataCenters[i] << " = \"" << hosts.back() << "\"\n";
  }
  Require(!out.flush().fail(), "configuration not written");
  Samples samples;
  for (int round = 0; round < 3; ++round) {
    for (const Side side : kBareSides) samples[side].push_back(LoadBare(side, hosts, kServices[2]));
    GlobalServiceWatcher watcher(kService, LibraryManaged{config});
    samples[kHalden].push_back(Time<Millis>([&] {
      watcher.StartManagedConnections();
      Require(watcher.AwaitSynchronized(kLimit), "the watcher is not synchronised");
    }));
    Require(watcher.Close(kLimit), "sessions not closed");
  }
  PrintSides("10, 80 and 200 ms at once: load of 3 x 10,000", "ms", Medians(samples),
             Limit{Limit::kRatio, 1.1});
}

struct NarrowWay {
  const char* name;
  Distance distance;
  Service service;
  double mostOfBare = 1.15;
};

void BenchNarrowWay(const Server& server, const NarrowWay& narrow) {
  const LongWay way(server.Port(), narrow.distance);
  PrintSides(fmt::format("{}: load of {}", narrow.name, narrow.service.instances), "ms",
             Medians(LoadRounds(way.ConnectString(), narrow.service, 2)),
             Limit{Limit::kRatio, narrow.mostOfBare});
  if (narrow.distance.bytesPerSecond < kMegabit) return;  // 10,000 take half a minute
  const double most =
      3 * Millis(narrow.distance.trip).count() + 65536 / narrow.distance.bytesPerSecond * 1000;
  for (const auto& [moment, name] : kMoments) {
    PrintFigure(fmt::format("{}: {}", narrow.name, name), "ms",
                Median(WriteDuringLoad(way.ConnectString(), narrow.service, moment, kRounds)), most);
  }
}

/// Nothing arrives for a while, in the middle of a load: the sessions hold.
void BenchStall(const Server& server) {
  LongWay way(server.Port(), {.trip = milliseconds(80)});
  Tally tally;
  const auto start = Clock::now();
  HaldenFollower follower(way.ConnectString(), tally);
  tally.Await({1, 0, 0});
  way.Stall(std::chrono::seconds(5));
  tally.Await({kPerDataCenter, 0, 0});
  PrintFigure("80 ms, stalled for 5 s: load of 10000", "ms", Millis(Clock::now() - start).count());
  const auto status = follower.Conn().Status();
  PrintFigure("80 ms, stalled for 5 s: sessions lost", "", static_cast<double>(status.expiries), 0);
}

}  // namespace

void BenchWan() {
  const Servers servers = StartServers(kDataCenters.size());
  const Server& server = *servers.front();
  for (const auto& service : kServices) Populate(server, service.name, service.instances);
  for (std::size_t i = 1; i < servers.size(); ++i) Populate(*servers[i], kService, kPerDataCenter);
  LoadRounds(server.ConnectString(), kServices[2], 2);  // first-time costs
  for (const auto trip : kTrips) BenchDistance(server, trip);
  BenchThree(servers);
}

void BenchNarrow() {
  const Servers servers = StartServers(1);
  const Server& server = *servers.front();
  for (const auto& service : kServices) Populate(server, service.name, service.instances);
  constexpr std::array narrowWays{
      NarrowWay{
          "10 Mbit/s, 80 ms", {.trip = milliseconds(80), .bytesPerSecond = 10 * kMegabit}, kServices[2]},
      NarrowWay{"1 Mbit/s, 40 ms", {.trip = milliseconds(40), .bytesPerSecond = kMegabit}, kServices[1]},
      NarrowWay{"80 ms with 20 ms of jitter",
                {.trip = milliseconds(80), .bytesPerSecond = 1000 * kMegabit, .jitter = milliseconds(20)},
                kServices[2]},
      // As where TCP does not slow down for a loss. More under way would be faster, and hold writes up for longer.
      NarrowWay{"1 Gbit/s, 80 ms with 20 ms of jitter and 1 % loss",
                {.trip = milliseconds(80),
                 .bytesPerSecond = 1000 * kMegabit,
                 .jitter = milliseconds(20),
                 .loss = 0.01},
                kServices[2],
                2},
      // Others' takes each loss for a sign of too much: 1.2 packets a trip over the root of the share is what it sends then.
      NarrowWay{"80 ms with 20 ms of jitter and 1 % loss",
                {.trip = milliseconds(80),
                 .bytesPerSecond = 1448 * 1.2 / (0.080 * 0.1),
                 .jitter = milliseconds(20),
                 .loss = 0.01},
                kServices[1]}};
  for (const auto& narrow : narrowWays) BenchNarrowWay(server, narrow);
  BenchStall(server);
}

}  // namespace zr::halden::bench
