// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// Three data centres out of snapshot files while nothing can be reached, beside their first load from servers; and what
// the files cost to write.
#include "bench.h"
#include "halden/global_service_watcher.h"
#include "halden/testing/temporary_folder.h"

namespace zr::halden::bench {

namespace {

struct SnapshotTimes {
  std::vector<double> load,
      loadTold;  // from servers: until queries are complete; until observers have been told
  std::vector<double> restore, restoreTold;  // from files: the same
  std::vector<double> close, closeCpu;       // without files
  std::vector<double> idleQuery,
      writeQuery;                       // of 1,000 the slowest: while nothing is written, and while files are
  std::vector<double> write, writeCpu;  // with files that are to be written
};

/// Of 1,000 queries the slowest but for one, for as long as it takes a new folder's files to be begun and written.
double SlowQuery(const GlobalServiceWatcher& watcher, const ServiceId& id) {
  constexpr std::chrono::milliseconds enough{1500};
  std::vector<double> times;
  std::shared_ptr<ServiceWatcher> knows;
  ServiceInstanceData data;
  for (const auto end = Clock::now() + enough; Clock::now() < end;) {
    times.push_back(Time<Micros>([&] { watcher.GetInstanceData(id, knows, data); }));
  }
  return Percentile(times, 0.999);
}

/// From servers; all files are written in the end, if there is a folder.
void LoadAndClose(const zr::String& config, const std::string& folder, std::size_t instances,
                  SnapshotTimes& times) {
  GlobalServiceWatcher watcher(kService, LibraryManaged{config});
  Tally tally;
  watcher.RegisterShared(std::make_shared<TallyObserver>(tally));
  const auto start = Clock::now();
  watcher.StartManagedConnections();
  Require(watcher.AwaitSynchronized(kLimit), "the watcher is not synchronised");
  times.load.push_back(Millis(Clock::now() - start).count());
  times.loadTold.push_back(Millis(tally.Await({instances, 0, 0}) - start).count());
  const ServiceId any = watcher.ListInstances().front();
  if (folder.empty()) times.idleQuery.push_back(SlowQuery(watcher, any));
  watcher.SetSnapshotFolder(folder);
  if (!folder.empty()) {
    times.writeQuery.push_back(SlowQuery(watcher, any));
    watcher.SetSnapshotFolder({});
    watcher.SetSnapshotFolder(folder);  // anew, so that all is to be written in the end
  }
  const auto cpu = CpuTime();
  (folder.empty() ? times.close : times.write).push_back(Time<Millis>([&] {
    Require(watcher.Close(kLimit), "sessions not closed");
  }));
  (folder.empty() ? times.closeCpu : times.writeCpu).push_back((CpuTime() - cpu).count());
}

void RestoreAll(const zr::String& config, const std::string& folder, std::size_t instances,
                SnapshotTimes& times) {
  GlobalServiceWatcher watcher(kService, LibraryManaged{config});
  watcher.SetSnapshotFolder(folder);
  Tally tally;
  watcher.RegisterShared(std::make_shared<TallyObserver>(tally));
  const auto start = Clock::now();
  watcher.StartManagedConnections();
  times.restore.push_back(Millis(Clock::now() - start).count());
  Require(watcher.ListInstances().size() == instances, "not every instance was restored");
  times.restoreTold.push_back(Millis(tally.Await({instances, 0, 0}) - start).count());
  Require(watcher.Close(kLimit), "not closed");
}

}  // namespace

void BenchSnapshot() {
  const Servers servers = StartServers(kDataCenters.size());
  DataCenterEnsembleMapT reachable;
  DataCenterEnsembleMapT away;
  for (std::size_t i = 0; i < servers.size(); ++i) {
    Populate(*servers[i], kService, kPerDataCenter);
    reachable[kDataCenters[i]] = servers[i]->ConnectString();
    away[kDataCenters[i]] = "127.0.0.1:1";
  }
  const testing::ConfigFile config(reachable);
  const testing::ConfigFile configAway(away);
  const testing::TemporaryFolder folder;
  const std::size_t instances = servers.size() * kPerDataCenter;
  SnapshotTimes times;
  const auto round = [&] {
    LoadAndClose(config.Path(), {}, instances, times);
    LoadAndClose(config.Path(), folder.Path(), instances, times);
    RestoreAll(configAway.Path(), folder.Path(), instances, times);
  };
  round();  // first-time costs
  times = {};
  for (int i = 0; i < kRounds; ++i) round();
  const double restore = Median(times.restore);
  PrintFigure("first load, 3 x 10,000: queries complete", "ms", Median(times.load));
  PrintFigure("first load, 3 x 10,000: observers told of all", "ms", Median(times.loadTold));
  PrintFigure("restored, 3 x 10,000: queries complete", "ms", restore, 50);
  PrintFigure("restored, 3 x 10,000: share of the first load", "%", 100 * restore / Median(times.load), 10);
  PrintFigure("restored, 3 x 10,000: observers told of all", "ms", Median(times.restoreTold));
  PrintFigure("query, 99.9 %: nothing is written", "us", Median(times.idleQuery));
  PrintFigure("query, 99.9 %: 3 x 10,000 are written meanwhile", "us", Median(times.writeQuery));
  PrintFigure("written, 3 x 10,000: time", "ms", Median(times.write) - Median(times.close));
  PrintFigure("written, 3 x 10,000: processor time", "ms", Median(times.writeCpu) - Median(times.closeCpu));
}

}  // namespace zr::halden::bench
