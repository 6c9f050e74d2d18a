// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <stdlib.h>

#include <CLI/CLI.hpp>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <stdexcept>

#include "halden/global_service_watcher.h"
#include "logger/sink.h"
#include "simulation/data_center.h"
#include "simulation/scripted.h"

namespace zr::halden::simulation {
namespace {

/// Does from inside callbacks what an application may do there.
struct Meddler : ServiceWatcherObserver {
  explicit Meddler(std::function<void(bool removed)> its) : act(std::move(its)) {}
  void OnInstanceAdded(ServiceWatcher&, const ServiceId&, const ServiceInstanceData&) override { act(false); }
  void OnInstanceModified(ServiceWatcher&, const ServiceId&, const ServiceInstanceData&) override {
    act(false);
  }
  void OnInstanceRemoved(ServiceWatcher&, const ServiceId&) override { act(true); }
  const std::function<void(bool removed)> act;
};

/// Real files, for which the simulated thread waits while no time passes: in memory, or a seed would take seconds.
struct Folder {
  Folder() { mkdtemp(path.data()); }
  ~Folder() { std::filesystem::remove_all(path); }
  std::string path =
      (std::filesystem::is_directory("/dev/shm") ? "/dev/shm"
                                                 : std::filesystem::temp_directory_path().string()) +
      "/halden-simulation-XXXXXX";
};

/// A run: rounds of writes, operations and faults in one or two data centres; each round ends with all faults healed, and
/// is over when everything is as it must be. At the end everything is destroyed, and nothing may be left.
struct Scenario {
  Scenario() {
    // At removals only: what an observer misses of the others it is told again by what comes next.
    thrower = std::make_shared<Meddler>([](bool removed) {
      if (removed && world->Strikes(Fault::ThrowFirst, 4)) throw std::runtime_error("an observer's");
    });
    meddler = std::make_shared<Meddler>([this](bool) { OnCallback(); });
    const int count = world->OneIn(3) ? 2 : 1;
    for (int i = 0; i < count; ++i) dcs.push_back(std::make_unique<DataCenter>(i));
    for (auto& dc : dcs) Watch(*dc);
    if (!world->faults[Fault::Global]) return;
    audience = std::make_unique<Audience>(
        "global watcher", [this](const Key& key) -> auto& {
          return dcs[static_cast<std::size_t>(key.first.back() - '0')]->HistoryOf(key.second);
        });
    global = std::make_unique<GlobalServiceWatcher>(kService, ApplicationManaged());
    audience->Observe(*global, nullptr, meddler);
    if (world->faults[Fault::Snapshots]) global->SetSnapshotFolder(snapshots.path);
    for (auto& dc : dcs) ToggleGlobal(true, *dc);
    Audience::Equip(*global, 3s);  // what it watches already, too
  }

  void Run() {
    const auto end = world->now + 10min;
    while (world->now < end && world->violation.empty()) Round();
    if (world->violation.empty()) End();
  }

  void Round() {
    const auto end = world->now + world->Between(10s, 90s);
    while (world->now < end && world->violation.empty()) {
      Await(world->Between(0s, 2 * pace));
      for (auto& one : dcs) one->Check();
      auto& dc = *world->OneOf(dcs);
      const auto what = world->Below(10);
      what < 5 ? Write(dc) : what < 7 ? Operate(dc) : Strike(dc);
    }
    if (world->violation.empty()) Settle();
  }

  void Settle() {
    world->Note("calm");
    world->calm = true;
    for (auto& dc : dcs) {
      dc->Heal();
      ToggleGlobal(true, *dc);
    }
    AwaitRight(120s, "after the last fault: ");
    Await(world->Between(1s, 10s));
    AwaitRight(10s, "some time after the last fault: ");  // a completion that was lost can cost a handle yet
    for (auto& dc : dcs) {
      for (auto& client : dc->clients) client.mayEnd = 0;
    }
    world->calm = false;
  }

  void AwaitRight(Duration limit, const char* when) {
    const auto end = world->now + limit;
    auto wrong = Wrong();
    while (!wrong.empty() && world->now < end && world->violation.empty()) {
      Await(1s);
      for (auto& dc : dcs) dc->Check();
      wrong = Wrong();
    }
    if (!wrong.empty()) world->Violation(when + wrong);
  }

  void End() {
    world->Note("end");
    world->calm = true;
    Await(45s);  // servers remove what is empty
    for (auto& dc : dcs) dc->ensemble.asked = 0;
    Await(60s);
    for (auto& dc : dcs) {
      if (dc->ensemble.asked != 0) world->Violation("more is asked although nothing happens any more");
    }
    global.reset();
    for (auto& dc : dcs) dc->Destroy();
    Await(60s);
    if (world->handles != 0) world->Violation(std::to_string(world->handles) + " handles are left");
    if (world->threads != 0) world->Violation(std::to_string(world->threads) + " threads are left");
    for (auto& dc : dcs) {
      if (!dc->ensemble.Sessions().empty()) world->Violation("a session is left");
    }
  }

  static void Write(DataCenter& dc) {
    const auto id = dc.AnyId();
    const auto what = world->Below(12);
    if (what <= 2) dc.Delete(id);
    if (what == 2 || what > 6) dc.Put(id);
    if (what == 3 && world->faults[Fault::Garbage]) dc.Garble(id);
    if (what == 4 && world->OneIn(3)) dc.DeleteMany();
    if (what == 5 && world->OneIn(6)) dc.DeleteService();
    for (int i = 0; what == 6 && i < 5; ++i) dc.Put(dc.AnyId());
  }

  void Operate(DataCenter& dc) {
    const auto what = world->Below(8);
    if (what == 0) Watch(dc);
    if (what == 1) dc.EndWatcher();
    if (what == 2) world->OneOf(dc.publishers).Remove();
    if (what == 3) world->OneOf(dc.publishers).Replace(dc.clients);
    if (what == 4 && world->faults[Fault::Stop]) world->OneOf(dc.clients).Stop();
    if (what == 5) world->OneOf(dc.clients).Start();
    if (what == 6 && depth == 0 && world->faults[Fault::Disconnect]) {
      const bool on = world->OneIn(2);
      ToggleGlobal(on, *world->OneOf(dcs));
    }
    if (what == 7) world->OneOf(dc.publishers).Publish();
  }

  void OnCallback() {
    if (world->Strikes(Fault::Slow, 20)) world->spent += world->Between(1ms, 3s);
    if (world->Strikes(Fault::Callback, 20)) {
      ++depth;
      Operate(*world->OneOf(dcs));
      --depth;
    }
    if (world->Strikes(Fault::Throw, 10)) throw std::runtime_error("an observer's");
  }

  void Strike(DataCenter& dc) {
    const auto kind = world->OneIn(2) ? focus : static_cast<Fault::Kind>(world->Below(kFaultNames.size()));
    if (!world->faults[kind]) return;
    world->Note("%s: %s", dc.name.c_str(), kFaultNames[kind].c_str());
    Ensemble& ensemble = dc.ensemble;
    const auto sessions = ensemble.Sessions();
    const auto session = sessions.empty() ? 0 : world->OneOf(sessions);
    if (kind == Fault::Anew) {
      if (world->OneIn(5)) ensemble.LoseData();
    } else if (kind == Fault::Expire) {
      world->OneIn(2) ? world->OneOf(dc.clients).ForceExpire() : ensemble.Expire(session);
    } else if (kind == Fault::Move) {
      ensemble.Move(session);
    } else if (kind == Fault::Cut) {
      ensemble.CutAnyLink();
    } else if (kind == Fault::Acl) {
      auto path = dc.PathOf(dc.AnyId());
      if (!world->OneIn(2)) path = world->OneIn(2) ? ParentOf(path) : ParentOf(ParentOf(path));
      ensemble.denied.insert(path);
      world->After(world->Between(100ms, 20s), [&ensemble, path] { ensemble.denied.erase(path); });
    } else {
      Server& leader = ensemble.leader == nullptr ? ensemble.servers.front() : *ensemble.leader;
      StrikeServer(dc, kind, world->OneIn(2) ? leader : world->OneOf(ensemble.servers), leader);
    }
  }

  /// For a while, or until the round's end.
  static void StrikeServer(DataCenter& dc, Fault::Kind kind, Server& server, Server& leader) {
    Ensemble& ensemble = dc.ensemble;
    const auto time = world->OneIn(2) ? world->Between(10ms, 3s) : world->Between(3s, 20s);
    if (kind == Fault::Kill) {
      ensemble.Kill(server);
      world->After(time, [&] { ensemble.Start(server); });
    } else if (kind == Fault::Freeze) {
      ensemble.Freeze(server);
      world->After(time, [&] { ensemble.Thaw(server); });
    } else if (kind == Fault::Partition) {
      ensemble.Partition(server, true);
      world->After(time, [&] { ensemble.Partition(server, false); });
    } else if (kind == Fault::Lag) {
      server.lag = world->Between(1ms, 3s);
    } else if (kind == Fault::DeposedLeader && world->OneIn(2)) {
      ensemble.CutFromPeers(leader);
      world->After(time, [&] { ensemble.RejoinAll(); });
    } else if (kind == Fault::DeposedLeader) {
      // Clients of the others see more than it has, lose them, and wait at it until it is back, with a new handle each.
      if (world->OneIn(2)) dc.DeleteService();
      ensemble.Freeze(leader);
      world->After(world->Between(100ms, 2s), [&] { dc.Put(dc.AnyId()); });
      world->After(world->Between(0s, 3s), [&] { ensemble.RefuseClients(leader, true); });
      world->After(world->Between(4s, 9s), [&] { ensemble.Thaw(leader); });
      world->After(world->Between(6s, 12s), [&] { ensemble.RefuseClients(leader, false); });
    }
  }

  void ToggleGlobal(bool on, DataCenter& dc) {
    if (!global || added.contains(&dc) == on) return;
    const auto& connection = dc.clients[1].connection;
    if (on) {
      added.insert(&dc);
      return global->AddConnection(connection);
    }
    added.erase(&dc);
    global->RemoveConnection(connection);
    audience->Forget(dc.name);
  }

  void Watch(DataCenter& dc) { dc.Watch(thrower, meddler); }
  std::string Wrong() {
    for (auto& dc : dcs) {
      auto text = dc->Wrong();
      if (text.empty() && global)
        text = dc->Differs(*audience, "the global observer", "the global event queue");
      if (!text.empty()) return dc->name + ": " + text;
    }
    return "";
  }

  static void Await(Duration duration) { world->RunUntil(world->now + duration); }

  const Duration pace = world->Between(100ms, 2s);
  const Fault::Kind focus = static_cast<Fault::Kind>(world->Below(Fault::Slow));  // what strikes most
  std::shared_ptr<Meddler> thrower, meddler;
  std::vector<std::unique_ptr<DataCenter>> dcs;
  const Folder snapshots;
  std::unique_ptr<GlobalServiceWatcher> global;
  std::unique_ptr<Audience> audience;  // the global watcher's
  std::set<DataCenter*> added;         // to it
  int depth = 0;                       // of callbacks
};

struct Options {
  std::uint64_t first = static_cast<std::uint64_t>(std::time(nullptr)) * 1000;
  std::uint64_t count = 100;
  std::uint64_t replayEvery = 50;
  std::size_t traceLines = 40;
};

/// False for a failed seed, which is reported. `hash`: of the seed played before, when it is set.
bool Play(std::uint64_t seed, const Options& options, std::uint64_t& hash) {
  World played(seed);
  Scenario().Run();
  if (hash != 0 && hash != played.hash) played.Violation("played again it went another way");
  hash = played.hash;
  if (played.violation.empty()) return true;
  std::cout << "seed " << seed << " failed, with";
  for (std::size_t i = 0; i < kFaultNames.size(); ++i) {
    if (played.faults[i]) std::cout << " " << kFaultNames[i];
  }
  const auto& trace = played.trace;
  for (auto i = trace.size() - std::min(options.traceLines, trace.size()); i < trace.size(); ++i)
    std::cout << "\n  " << trace[i];
  std::cout << "\nseed " << seed << ": " << played.violation << std::endl;
  return false;
}

bool PlayAll(const Options& options) {
  std::cout << "seeds " << options.first << " to " << options.first + options.count - 1 << std::endl;
  std::uint64_t failed = 0;
  for (const auto play : {SpreadsReads, FollowsFromFarAway, LoadsOverANarrowWay, RetriesInGoodTime})
    failed += !PlayScripted(options.first, play);
  for (std::uint64_t i = 0; i < options.count; ++i) {
    std::uint64_t hash = 0;
    for (const auto play : {DistrustsDeposedLeaders, LeavesSilentServers})
      failed += i % 4 == 0 && !PlayScripted(options.first + i, play);
    const bool twice = options.replayEvery != 0 && i % options.replayEvery == 0;
    failed += !Play(options.first + i, options, hash) || (twice && !Play(options.first + i, options, hash));
  }
  std::cout << options.count << " seeds, " << failed << " failed" << std::endl;
  return failed == 0;
}

}  // namespace
}  // namespace zr::halden::simulation

int main(int argc, char** argv) {
  using namespace zr::halden::simulation;  // NOLINT(google-build-using-namespace)
  CLI::App app("Plays the library against simulated servers, network and time; a seed decides everything.");
  Options options;
  app.add_option("--seeds", options.count, "how many");
  app.add_option("--seed", options.first, "the first one; else taken from the clock");
  app.add_option("--replay-every", options.replayEvery, "these are played twice and compared; 0: none");
  app.add_option("--trace", options.traceLines, "lines of a failed seed's trace, at most 2000");
  CLI11_PARSE(app, argc, argv);
  zr::logging::g_minLogLevel = zr::logging::ZRLOG_WALL;
  return PlayAll(options) ? 0 : 1;
}
