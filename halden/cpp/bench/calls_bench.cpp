// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// How long operations keep their caller: queries, also while everything is read again; Start and Stop in every state.
#include <fmt/format.h>

#include <algorithm>

#include "bench.h"
#include "halden/global_service_watcher.h"
#include "halden/testing/poll.h"

namespace zr::halden::bench {

namespace {

void Report(const std::string& what, const std::vector<double>& micros) {
  PrintFigure(what + ", p50", "us", Percentile(micros, 0.5));
  PrintFigure(what + ", p99", "us", Percentile(micros, 0.99));
}

struct Queries {
  std::vector<double> lists;
  std::vector<double> gets;

  void Ask(const GlobalServiceWatcher& watcher, std::size_t instances) {
    constexpr std::size_t getsForEachList = 50;
    std::vector<ServiceId> ids;
    lists.push_back(Time<Micros>([&] { ids = watcher.ListInstances(); }));
    Require(ids.size() == instances, "not every instance is known");
    std::shared_ptr<ServiceWatcher> source;
    ServiceInstanceData data;
    for (std::size_t i = 0; i < getsForEachList; ++i) {
      const ServiceId& id = ids[(i * 7919 + lists.size()) % ids.size()];
      gets.push_back(Time<Micros>([&] { watcher.GetInstanceData(id, source, data); }));
    }
  }
};

std::uint64_t Resyncs(const GlobalServiceWatcher& watcher) {
  std::uint64_t least = ~0ULL;
  for (const auto& dc : watcher.Status()) least = std::min(least, dc.watcher.resyncs);
  return least;
}

void BenchQueries(const Servers& servers) {
  GlobalServiceWatcher watcher(kService, ApplicationManaged{});
  std::vector<std::shared_ptr<Connection>> connections;
  for (std::size_t i = 0; i < servers.size(); ++i) {
    connections.push_back(MakeConnection(servers[i]->ConnectString(), kDataCenters[i]));
    connections.back()->Start(nullptr);
    watcher.AddConnection(connections.back());
  }
  Require(watcher.AwaitSynchronized(kLimit), "not synchronised");
  const std::size_t instances = servers.size() * kPerDataCenter;
  Queries quiet;
  for (int i = 0; i < 200; ++i) quiet.Ask(watcher, instances);
  Queries busy;
  for (int round = 0; round < kRounds; ++round) {
    const auto before = Resyncs(watcher);
    for (const auto& connection : connections) connection->ForceExpire();
    while (Resyncs(watcher) == before) busy.Ask(watcher, instances);
  }
  Report("ListInstances, 3 x 10,000", quiet.lists);
  Report("ListInstances, during a resync", busy.lists);
  Report("GetInstanceData, 3 x 10,000", quiet.gets);
  Report("GetInstanceData, during a resync", busy.gets);
  for (const auto& connection : connections) connection->Stop();
  for (const auto& connection : connections) Require(connection->AwaitClosed(kLimit), "session not closed");
}

void AwaitState(const Connection& conn, ConnectionState state) {
  Require(testing::Poll(kLimit, [&] { return conn.Status().state == state; }), "state not reached");
}

/// `arrive` brings a started connection into the state that it is to be stopped in.
template <typename Arrive>
void StartStop(const std::string& what, const zr::String& hosts, int times, const Arrive& arrive) {
  std::vector<double> starts;
  std::vector<double> stops;
  for (int i = 0; i < times; ++i) {
    const auto conn = MakeConnection(hosts);
    starts.push_back(Time<Micros>([&] { conn->Start(nullptr); }));
    arrive(*conn);
    stops.push_back(Time<Micros>([&] { conn->Stop(); }));
    Require(conn->AwaitClosed(kLimit), "session not closed");
  }
  Report("Start, " + what, starts);
  Report("Stop, " + what, stops);
}

void BenchSilentServer(Server& server, int times) {
  std::vector<std::shared_ptr<Connection>> connections;
  for (int i = 0; i < times; ++i) {
    connections.push_back(MakeConnection(server.ConnectString()));
    connections.back()->Start(nullptr);
  }
  for (const auto& conn : connections) AwaitState(*conn, ConnectionState::Connected);
  server.Freeze();
  std::vector<double> stops;
  std::vector<double> starts;
  stops.reserve(connections.size());
  starts.reserve(connections.size());
  for (const auto& conn : connections) stops.push_back(Time<Micros>([&] { conn->Stop(); }));
  for (const auto& conn : connections) starts.push_back(Time<Micros>([&] { conn->Start(nullptr); }));
  Report("Stop, connected to a silent server", stops);
  Report("Start, while the session is still being closed", starts);
  for (const auto& conn : connections) conn->Stop();
  server.Thaw();
  for (const auto& conn : connections) Require(conn->AwaitClosed(kLimit), "session not closed");
}

}  // namespace

void BenchCalls() {
  constexpr int times = 200;
  constexpr int fewTimes = 100;
  const Servers servers = StartServers(kDataCenters.size());
  for (const auto& server : servers) Populate(*server, kService, kPerDataCenter);
  BenchQueries(servers);
  const zr::String hosts = servers.front()->ConnectString();
  const auto connecting = [](const Connection& conn) { AwaitState(conn, ConnectionState::Connecting); };
  const auto connected = [](const Connection& conn) { AwaitState(conn, ConnectionState::Connected); };
  StartStop("connected", hosts, times, connected);
  StartStop("at once after Start", hosts, times, [](const Connection&) {});
  StartStop("ensemble down", "127.0.0.1:1", times, connecting);
  StartStop("names that do not resolve", "nowhere.invalid:2181", times, connecting);
  StartStop("session being expired", hosts, fewTimes, [&](Connection& conn) {
    connected(conn);
    conn.ForceExpire();
  });
  BenchSilentServer(*servers.front(), fewTimes);
}

}  // namespace zr::halden::bench
