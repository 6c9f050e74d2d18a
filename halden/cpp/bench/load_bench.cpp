// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// First load of three data centres, against the client library alone making the same requests.
#include "bench.h"
#include "halden/global_service_watcher.h"
#include "halden/testing/temporary_folder.h"
#include "model/layout.h"
#include "raw_client.h"

namespace zr::halden::bench {

namespace {

/// The client library alone has nobody to announce anything to: the first two are the same there.
struct Times {
  Samples known;      // until queries are complete
  Samples announced;  // until observers have been told of every instance
  Samples cpu;
};

void LoadBare(Side side, const Servers& servers, std::size_t instances, Times& times) {
  std::vector<std::unique_ptr<RawReader>> readers;
  const auto cpu = CpuTime();
  const auto start = Clock::now();
  for (const auto& server : servers) {
    readers.push_back(std::make_unique<RawReader>(side, server->ConnectString(), nullptr));
    readers.back()->Begin({details::ServicePath(kService)});
  }
  std::size_t read = 0;
  for (const auto& reader : readers) read += reader->AwaitLoaded();
  times.known[side].push_back(Millis(Clock::now() - start).count());
  times.announced[side].push_back(times.known[side].back());
  times.cpu[side].push_back((CpuTime() - cpu).count());
  Require(read == instances, "the client library alone has not read every instance");
}

void LoadHalden(const zr::String& config, std::size_t instances, Times& times) {
  GlobalServiceWatcher watcher(kService, LibraryManaged{config});
  Tally tally;
  watcher.RegisterShared(std::make_shared<TallyObserver>(tally));
  const auto cpu = CpuTime();
  const auto start = Clock::now();
  watcher.StartManagedConnections();
  Require(watcher.AwaitSynchronized(kLimit), "the watcher is not synchronised");
  times.known[kHalden].push_back(Millis(Clock::now() - start).count());
  times.announced[kHalden].push_back(Millis(tally.Await({instances, 0, 0}) - start).count());
  times.cpu[kHalden].push_back((CpuTime() - cpu).count());
  Require(watcher.ListInstances().size() == instances, "the watcher does not know every instance");
  Require(watcher.Close(kLimit), "sessions not closed");
}

}  // namespace

void BenchLoad() {
  const Servers servers = StartServers(kDataCenters.size());
  DataCenterEnsembleMapT ensembles;
  for (std::size_t i = 0; i < servers.size(); ++i) {
    Populate(*servers[i], kService, kPerDataCenter);
    ensembles[kDataCenters[i]] = servers[i]->ConnectString();
  }
  const testing::ConfigFile config(ensembles);
  const std::size_t instances = servers.size() * kPerDataCenter;
  Times times;
  const auto round = [&] {
    for (const Side side : kBareSides) LoadBare(side, servers, instances, times);
    LoadHalden(config.Path(), instances, times);
  };
  round();  // the servers' and our own first-time costs
  times = {};
  for (int i = 0; i < kRounds; ++i) round();
  PrintSides("first load, 3 x 10,000: queries complete", "ms", Medians(times.known),
             Limit{Limit::kRatio, 1.0});
  PrintSides("first load, 3 x 10,000: observers told of all", "ms", Medians(times.announced),
             Limit{Limit::kRatio, 1.0});
  PrintSides("first load, 3 x 10,000: processor time", "ms", Medians(times.cpu), Limit{Limit::kRatio, 1.2});
}

}  // namespace zr::halden::bench
