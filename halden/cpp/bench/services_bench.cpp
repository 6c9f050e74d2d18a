// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// Many services over shared connections, which the application manages.
#include <filesystem>

#include "bench.h"
#include "halden/global_service_watcher.h"
#include "halden/testing/poll.h"
#include "model/layout.h"
#include "raw_client.h"

namespace zr::halden::bench {

namespace {

constexpr std::size_t kServices = 200;
constexpr std::size_t kInstances = 5;  // of each service, in each data centre

double Entries(const char* folder) {
  return static_cast<double>(
      std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator()));
}

struct Costs {
  Samples millis;
  Samples threads;
  Samples descriptors;

  /// What is used at the end of a round, beyond what was used before it.
  void Add(Side side, double took, double threadsBefore, double descriptorsBefore) {
    millis[side].push_back(took);
    threads[side].push_back(Entries("/proc/self/task") - threadsBefore);
    descriptors[side].push_back(Entries("/proc/self/fd") - descriptorsBefore);
  }
};

void RoundBare(Side side, const Servers& servers, const std::vector<std::string>& paths, Costs& costs) {
  const double threads = Entries("/proc/self/task");
  const double descriptors = Entries("/proc/self/fd");
  std::vector<std::unique_ptr<RawReader>> readers;
  const double took = Time<Millis>([&] {
    for (const auto& server : servers) {
      readers.push_back(std::make_unique<RawReader>(side, server->ConnectString(), nullptr));
      readers.back()->Begin(paths);
    }
    for (const auto& reader : readers)
      Require(reader->AwaitLoaded() == kServices * kInstances, "not all read");
  });
  costs.Add(side, took, threads, descriptors);
}

void RoundHalden(const Servers& servers, const std::vector<zr::String>& names, Costs& costs) {
  const double threads = Entries("/proc/self/task");
  const double descriptors = Entries("/proc/self/fd");
  std::vector<std::shared_ptr<Connection>> connections;
  std::vector<std::unique_ptr<GlobalServiceWatcher>> watchers;
  const double took = Time<Millis>([&] {
    for (std::size_t i = 0; i < servers.size(); ++i) {
      connections.push_back(MakeConnection(servers[i]->ConnectString(), kDataCenters[i]));
      connections.back()->Start(nullptr);
    }
    for (const auto& name : names) {
      watchers.push_back(std::make_unique<GlobalServiceWatcher>(name, ApplicationManaged{}));
      for (const auto& connection : connections) watchers.back()->AddConnection(connection);
    }
    for (const auto& watcher : watchers) Require(watcher->AwaitSynchronized(kLimit), "not synchronised");
  });
  costs.Add(kHalden, took, threads, descriptors);
  for (const auto& watcher : watchers) {
    Require(watcher->ListInstances().size() == kInstances * servers.size(), "not all known");
  }
  watchers.clear();
  for (const auto& connection : connections) connection->Stop();
  for (const auto& connection : connections) Require(connection->AwaitClosed(kLimit), "not closed");
  connections.clear();
  const auto ended = [&] { return Entries("/proc/self/task") <= threads; };
  Require(testing::Poll(kLimit, ended), "threads are left");
}

}  // namespace

void BenchServices() {
  const Servers servers = StartServers(kDataCenters.size());
  std::vector<zr::String> names;
  std::vector<std::string> paths;
  for (std::size_t i = 0; i < kServices; ++i) {
    names.push_back("service-" + std::to_string(i));
    paths.push_back(details::ServicePath(names.back()));
    for (const auto& server : servers) Populate(*server, names.back(), kInstances);
  }
  Costs costs;
  for (const Side side : kBareSides) RoundBare(side, servers, paths, costs);  // first-time costs
  costs = {};
  for (int round = 0; round < kRounds; ++round) {
    for (const Side side : kBareSides) RoundBare(side, servers, paths, costs);
    RoundHalden(servers, names, costs);
  }
  PrintSides("200 services over 3 connections: synchronised", "ms", Medians(costs.millis));
  PrintSides("200 services over 3 connections: threads", "", Medians(costs.threads),
             Limit{Limit::kFigure, 9});
  PrintSides("200 services over 3 connections: descriptors", "", Medians(costs.descriptors));
}

}  // namespace zr::halden::bench
