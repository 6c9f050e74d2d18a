// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// What it costs to keep what is known true, and what watchers leave behind that are gone.
#include <malloc.h>

#include <thread>

#include "bench.h"
#include "halden/testing/poll.h"

namespace zr::halden::bench {

namespace {

/// The audit a hundred times as fast as by default; figures are for the default.
void BenchAudit() {
  constexpr int faster = 100;
  constexpr std::chrono::seconds window{20};
  const Servers servers = StartServers(1);
  const Server& server = *servers.front();
  Populate(server, kService, kPerDataCenter);
  Tally tally;
  HaldenFollower follower(server.ConnectString(), tally);
  tally.Await({kPerDataCenter, 0, 0});
  const AuditIntervals usual;
  follower.Watcher().SetAudit({usual.lists / faster, usual.instances / faster});
  const auto received = server.Received();
  const auto cpu = CpuTime();
  std::this_thread::sleep_for(window);
  const auto requests = static_cast<double>(server.Received() - received);
  const double share = (CpuTime() - cpu) / window / faster;
  Require(follower.Watcher().Status().drifts == 0, "the audit found what was not there");
  PrintFigure("audit of 10,000: requests a second", "", requests / window.count() / faster, 5);
  PrintFigure("audit of 10,000: share of a processor", "%", 100 * share, 0.5);
}

double Reconnect(const Server& server, HaldenFollower& follower) {
  const auto before = follower.Conn().Status().reconnects;
  return Time<Millis>([&] {
    DropConnections(server);
    const auto live = [&] {
      return follower.Conn().Status().reconnects > before &&
             follower.Watcher().Status().freshness == Freshness::Live;
    };
    Require(testing::Poll(kLimit, live), "not live again");
  });
}

void BenchWatchersGone() {
  constexpr std::size_t services = 200;
  constexpr std::size_t watchers = 20'000;
  const Servers servers = StartServers(1);
  const Server& server = *servers.front();
  Populate(server, kService, 100);
  for (std::size_t i = 0; i < services; ++i) Populate(server, "service-" + std::to_string(i), 5);
  Tally tally;
  HaldenFollower follower(server.ConnectString(), tally);
  tally.Await({100, 0, 0});
  const auto make = [&](const zr::String& name) {
    const auto watcher = std::make_shared<ServiceWatcher>(follower.SharedConn(), name, nullptr);
    watcher->Start();
    Require(watcher->AwaitSynchronized(kLimit), "not synchronised");
  };
  for (std::size_t i = 0; i < services; ++i) make("service-" + std::to_string(i));  // first-time costs
  std::vector<double> before;
  std::vector<double> after;
  for (int i = 0; i < kRounds; ++i) before.push_back(Reconnect(server, follower));
  malloc_trim(0);
  const double resident = ResidentBytes();
  for (std::size_t i = 0; i < watchers; ++i) {  // of services that are there, and of services that are not
    make(i % 2 == 0 ? "service-" + std::to_string(i % services) : "absent-" + std::to_string(i));
  }
  malloc_trim(0);
  PrintFigure("20,000 watchers that are gone: resident", "MB", (ResidentBytes() - resident) / 1e6, 5);
  for (int i = 0; i < kRounds; ++i) after.push_back(Reconnect(server, follower));
  PrintFigure("reconnect before them", "ms", Median(before));
  PrintFigure("reconnect after them", "ms", Median(after));
}

}  // namespace

void BenchUpkeep() {
  BenchAudit();
  BenchWatchersGone();
}

}  // namespace zr::halden::bench
