// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// First load of three data centres, against the client library alone making the same requests.
#include <fstream>

#include "bench.h"
#include "halden/global_service_watcher.h"
#include "layout.h"
#include "raw_client.h"

namespace zr::halden::bench {

namespace {

struct Times {
  std::vector<double> raw;
  std::vector<double> rawCpu;
  std::vector<double> known;      // until queries are complete
  std::vector<double> announced;  // until observers have been told of every instance
  std::vector<double> cpu;
};

void LoadRaw(const Servers& servers, std::size_t instances, Times& times) {
  std::vector<std::unique_ptr<RawReader>> readers;
  const auto cpu = CpuTime();
  const auto start = Clock::now();
  for (const auto& server : servers) {
    readers.push_back(std::make_unique<RawReader>(server->ConnectString(), nullptr));
    readers.back()->Begin({details::ServicePath(kService)});
  }
  std::size_t read = 0;
  for (const auto& reader : readers) read += reader->AwaitLoaded();
  times.raw.push_back(Millis(Clock::now() - start).count());
  times.rawCpu.push_back((CpuTime() - cpu).count());
  Require(read == instances, "the raw client has not read every instance");
}

void LoadHalden(const zr::String& config, std::size_t instances, Times& times) {
  GlobalServiceWatcher watcher(kService, LibraryManaged{config});
  Tally tally;
  watcher.RegisterShared(std::make_shared<TallyObserver>(tally));
  const auto cpu = CpuTime();
  const auto start = Clock::now();
  watcher.StartManagedConnections();
  Require(watcher.AwaitSynchronized(kLimit), "the watcher is not synchronised");
  times.known.push_back(Millis(Clock::now() - start).count());
  times.announced.push_back(Millis(tally.Await({instances, 0, 0}) - start).count());
  times.cpu.push_back((CpuTime() - cpu).count());
  Require(watcher.ListInstances().size() == instances, "the watcher does not know every instance");
  Require(watcher.Close(kLimit), "sessions not closed");
}

}  // namespace

void BenchLoad() {
  const Servers servers = StartServers(kDataCenters.size());
  const test::TemporaryFolder folder;
  const zr::String config = folder.Path() / "halden.toml";
  std::ofstream out(config);
  out << "[data_centers]\n";
  for (std::size_t i = 0; i < servers.size(); ++i) {
    Populate(*servers[i], kService, kPerDataCenter);
    out << kDataCenters[i] << " = \"" << servers[i]->ConnectString() << "\"\n";
  }
  Require(!out.flush().fail(), "configuration not written");
  const std::size_t instances = servers.size() * kPerDataCenter;
  Times times;
  LoadRaw(servers, instances, times);  // the servers' and our own first-time costs
  LoadHalden(config, instances, times);
  times = {};
  for (int round = 0; round < kRounds; ++round) {
    LoadRaw(servers, instances, times);
    LoadHalden(config, instances, times);
  }
  PrintRatio("first load, 3 x 10,000: queries complete", "ms", Median(times.raw), Median(times.known), 1.25);
  PrintRatio("first load, 3 x 10,000: observers told of all", "ms", Median(times.raw),
             Median(times.announced), 1.25);
  PrintRatio("first load, 3 x 10,000: processor time", "ms", Median(times.rawCpu), Median(times.cpu),
             std::nullopt);
}

}  // namespace zr::halden::bench
