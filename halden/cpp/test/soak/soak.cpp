// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <atomic>
#include <boost/uuid/random_generator.hpp>
#include <deque>
#include <fstream>
#include <functional>
#include <future>
#include <iostream>
#include <random>
#include <stdexcept>

#include "halden/event_queue.h"
#include "halden/global_service_watcher.h"
#include "halden/service_publisher.h"
#include "halden/testing/tcp_proxy.h"
#include "halden/testing/zookeeper_ensemble.h"
#include "logger/sink.h"
#include "soak/stream_reader.h"
#include "support/ensemble_test.h"
#include "support/recording_observer.h"

namespace zr::halden::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr const char* kService = "orders";
constexpr auto kSessionTimeout = 1500ms;
constexpr int kWarmUpRounds = 3;
/// Of each data centre's instances those which are written once, and never deleted while it keeps its data.
constexpr std::size_t kStanding = 10;
constexpr const char* kStandingHost = "standing";

struct Random : std::mt19937 {
  using std::mt19937::mt19937;
  std::size_t Roll(std::size_t sides) { return (*this)() % sides; }
  void Rest(auto limit) { Poll(limit * Roll(100) / 100, std::false_type()); }
  auto& AnyOf(auto& those) { return those[Roll(those.size())]; }
  ServiceInstanceData Data() { return MakeInstance("h" + std::to_string((*this)())); }
  ServiceId Id() { return boost::uuids::basic_random_generator<std::mt19937>(*this)(); }
};

/// An ensemble behind a bad network, a thread that writes to it directly, and, through the network, two publishers.
/// The second's connection is the application's, too.
struct DataCenter {
  DataCenter(zr::String itsName, std::size_t servers, Random& random)
      : name(std::move(itsName)), ensemble(servers) {
    ensemble.Start();
    for (std::size_t i = 0; i < servers; ++i) {
      ways.emplace_back(ensemble.Server(i).Port());
      hosts += (i == 0 ? "" : ",") + ways[i].ConnectString();
    }
    for (auto& id : ids) id = random.Id();
    for (std::size_t i = 0; i < conns.size(); ++i) {
      conns[i] = std::make_shared<Connection>(std::vector{hosts}, true, zr::String(), kSessionTimeout, name);
      publishers[i] = std::make_unique<ServicePublisher>(conns[i], kService, random.Id());
    }
  }

  ZooKeeperServer& AnyServer(Random& random) { return ensemble.Server(random.Roll(ways.size())); }
  void HealNetwork() {
    for (auto& way : ways) way.Heal();
  }
  void Write(Random random) {
    ZooKeeperClient client(ensemble.ConnectString());
    for (std::size_t i = 0; i < kStanding; ++i) {
      if (!client.Stat(ZooKeeperClient::InstancePath(kService, ids[i])))
        client.Publish(kService, ids[i], MakeInstance(kStandingHost));
    }
    while (writing) {
      const auto& id = ids[kStanding + random.Roll(ids.size() - kStanding)];
      const auto what = random.Roll(20);
      if (what < 5) client.Unpublish(kService, id);
      if (what == 5) client.PublishRaw(kService, id, "\xff\xff garbage");
      if (what > 5) client.Publish(kService, id, random.Data());
      Poll(random.Roll(12) * 1ms, [this] { return !writing; });
    }
  }
  const zr::String name;
  ZooKeeperEnsemble ensemble;
  std::deque<TcpProxy> ways;  ///< to each server
  zr::String hosts;           ///< through the network
  std::array<ServiceId, 50> ids{};
  std::array<std::shared_ptr<Connection>, 2> conns;
  std::array<std::unique_ptr<ServicePublisher>, 2> publishers;
  std::atomic<bool> writing{false};  ///< as long as the writer is to
  std::future<void> writer;
};

/// Resident, in MiB.
double Memory() {
  double pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  return pages * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1024.0 * 1024.0);
}

std::atomic<const DataCenter*> lostData{nullptr};  // and all views have not been right since
std::atomic<int> violations{0};
std::atomic<int> events{0};

/// Fails the round. Any thread.
void Complain(const std::string& text) {
  ++violations;
  std::cout << text + "\n" << std::flush;
}

/// Holds what it is told and what a queue hands out against the rules. Keeps no history, so it can run for days.
struct Checker : EventObserver {
  void OnEvent(ServiceWatcher& /*watcher*/, Event event) override { Take(told, event, "the observer"); }
  void Drain() {
    for (const auto& event : queue->Drain()) {
      if (!event.IsInstance()) continue;
      Take(handedOut, {static_cast<EventKind>(event.kind), event.dcName, event.id, event.data},
           "the queue's consumer");
    }
  }
  void Take(View& view, const Event& event, const char* whom) {
    const std::lock_guard lock(mtx);
    ++events;
    const auto known = view.find({event.dcName, event.id});
    const auto* lost = lostData.load();
    const bool mayGo =
        known == view.end() || known->second != kStandingHost || (lost && lost->name == event.dcName);
    std::ostringstream text;
    text << whom << " got: " << event;
    if (event.kind == EventKind::Removed && !mayGo) Complain(text.str() + ", and nobody deleted it");
    if (!test::Take(view, event)) Complain(text.str() + ", which is illegal");
  }
  std::string Wrong(const View& truth) {
    Drain();
    const std::lock_guard lock(mtx);
    return Difference("the observer", told, truth) + Difference("the queue's consumer", handedOut, truth);
  }
  /// A new watcher of the data centre tells everything anew.
  void Forget(const zr::String& dcName) {
    const std::lock_guard lock(mtx);
    std::erase_if(told, [&](const auto& entry) { return entry.first.first == dcName; });
  }

  const std::shared_ptr<EventQueue> queue = std::make_shared<EventQueue>();
  std::mutex mtx;  // guards the two below
  View told;
  View handedOut;
};

/// A watcher over all data centres, and who hears of its events.
struct Audience {
  explicit Audience(auto mode) : watcher(kService, mode) {
    watcher.RegisterShared(checker);
    watcher.RegisterShared(checker->queue);
  }
  std::string Wrong(const View& truth) const {
    View known;
    std::shared_ptr<ServiceWatcher> of;
    ServiceInstanceData data;
    for (const auto& id : watcher.ListInstances()) {
      if (watcher.GetInstanceData(id, of, data)) known[{of->DataCenterName(), id}] = data.host();
    }
    return Difference("the watcher", known, truth) + checker->Wrong(truth);
  }

  const std::shared_ptr<Checker> checker = std::make_shared<Checker>();
  GlobalServiceWatcher watcher;
};

/// Belongs to the main thread.
struct Soak {
  explicit Soak(unsigned seed) : random(seed) {
    // Level error is the library's word for what must not happen.
    const auto complain = [](const auto& record) { Complain("logged as an error: " + record.msg); };
    zr::logging::SetHandler("stderr", complain, {zr::logging::ZRLOG_ERROR});
    managed.watcher.SetMassRemovalGuard(MassRemovalGuard{0.3, 1s});
    Connect();
  }

  using Verb = std::pair<const char*, std::function<void(DataCenter&)>>;

  std::deque<DataCenter> MakeDataCenters() {
    std::deque<DataCenter> made;
    std::ofstream file(config);
    file << "[data_centers]\n";
    for (const auto& [name, servers] : {std::pair("eu-west", 1U), {"us-east", 1U}, {"ap-south", 3U}}) {
      file << name << " = \"" << made.emplace_back(name, servers, random).hosts << "\"\n";
    }
    return made;
  }

  void Do(const Verb& verb) {
    auto& dc = random.AnyOf(dcs);
    steps.push_back("round " + std::to_string(rounds) + ", " + dc.name + ": " + verb.first);
    if (steps.size() > 30) steps.pop_front();
    ++faults;
    verb.second(dc);
  }
  void LoseData(DataCenter& dc) {  // while nobody writes
    lostData = &dc;
    for (std::size_t i = 0; i < dc.ways.size(); ++i) dc.ensemble.Server(i).Wipe();
    dc.ensemble.Start();
  }
  void ToggleManaged(const DataCenter& dc) {
    if (managed.watcher.DisconnectDC(dc.name)) return;
    managed.checker->Forget(dc.name);
    managed.watcher.ConnectDC(dc.name);
  }
  void ToggleAdded(const DataCenter& dc) {
    auto& watcher = application.watcher;
    if (!watcher.HasConnection(dc.name)) return watcher.AddConnection(dc.conns[1]);
    std::weak_ptr<ServiceWatcher> removed;
    for (const auto& one : watcher.Watchers()) {
      if (one->DataCenterName() == dc.name) removed = one;
    }
    watcher.RemoveConnection(dc.conns[1]);
    // The one event that may be running keeps it alive.
    if (!Poll(kLimit, [&] { return removed.expired(); })) Complain(dc.name + ": a removed watcher lives on");
    application.checker->Forget(dc.name);
  }

  /// All that a round may have left unconnected, and what the publishers publish.
  void Connect() {
    for (const auto& dc : dcs) {
      if (!managed.watcher.HasConnection(dc.name)) ToggleManaged(dc);
      if (!application.watcher.HasConnection(dc.name)) ToggleAdded(dc);
      for (const auto& conn : dc.conns) conn->Start(nullptr);
      for (const auto& publisher : dc.publishers) publisher->Publish(random.Data());
    }
  }
  void Round() {
    ++rounds;
    if (random.Roll(4) == 0) Do({"lose all data", [this](auto& dc) { LoseData(dc); }});
    for (auto& dc : dcs) {
      dc.writing = true;
      dc.writer = std::async(std::launch::async, [&dc, own = Random(random())] { dc.Write(own); });
    }
    for (int i = 0; i < 12; ++i) {
      Do(random.AnyOf(verbs));
      random.Rest(400ms);
      managed.checker->Drain();  // the other queue merges what comes in a whole round
      stream.Read();
    }
    for (auto& dc : dcs) dc.writing = false, dc.HealNetwork();
    for (auto& dc : dcs) dc.writer.get();  // throws what the writer has thrown
    Connect();
    Check();
    if (rounds == kWarmUpRounds) warmMemory = Memory();
  }
  /// Holds all views against what a client of its own reads, once the publishers are confirmed.
  void Check() {
    View truth;
    for (const auto& dc : dcs) {
      for (const auto& one : dc.publishers)
        if (!one->AwaitPublished(kLimit)) Complain(dc.name + ": not published: " + ToString(one->Id()));
      ZooKeeperClient client(dc.ensemble.ConnectString());
      client.Publish("truths", ServiceId(), ServiceInstanceData());  // who has written reads nothing older
      ReadInto(truth, client, dc.name, kService);
    }
    const auto wrong = [&] {
      stream.Read();
      return managed.Wrong(truth) + application.Wrong(truth) + stream.wrong +
             Difference("the stream's reader", stream.told, truth);
    };
    Poll(kLimit, [&] { return wrong().empty(); });
    if (const auto text = wrong(); !text.empty()) Complain("after the round" + text);
    if (violations > 0) throw std::runtime_error("for what is told above");
    lostData = nullptr;
  }

  void Report(const std::string& when) const {
    std::cout.precision(1);
    std::cout << when << ": " << std::fixed << rounds << " rounds, " << faults << " faults, " << events
              << " events, " << Memory() << " MiB (" << warmMemory << " after " << kWarmUpRounds << " rounds)"
              << std::endl;
  }

  Random random;
  const TemporaryFolder folder;
  const zr::String config = folder.Path() / "halden.toml";
  std::deque<DataCenter> dcs = MakeDataCenters();
  Audience managed{LibraryManaged{config}};
  Audience application{ApplicationManaged()};
  StreamReader stream{"--service orders --config " + config, [this](auto& told, const auto& event) {
                        managed.checker->Take(told, event, "the stream's reader");
                      }};
  const std::vector<Verb> verbs{
      {"kill servers",
       [this](auto& dc) {
         for (auto i = random.Roll(3) + 1; i > 0; --i) dc.AnyServer(random).Kill();
         random.Rest(800ms);
         dc.ensemble.Start();
       }},
      {"pause a server",
       [this](auto& dc) {
         auto& server = dc.AnyServer(random);
         server.Freeze();
         random.Rest(2500ms);
         server.Thaw();
       }},
      {"cut", [this](auto& dc) { random.AnyOf(dc.ways).Cut(); }},
      {"refuse", [this](auto& dc) { random.AnyOf(dc.ways).Refuse(); }},
      {"delay", [this](auto& dc) { random.AnyOf(dc.ways).Delay(random.Roll(80) * 1ms); }},
      {"throttle", [this](auto& dc) { random.AnyOf(dc.ways).Throttle(1000 + random.Roll(50'000)); }},
      {"half open", [this](auto& dc) { random.AnyOf(dc.ways).HalfOpen(); }},
      {"heal the network", &DataCenter::HealNetwork},
      {"expire", [this](auto& dc) { random.AnyOf(dc.conns)->ForceExpire(); }},
      {"expire the managed one",
       [this](auto& dc) {
         if (const auto its = managed.watcher.GetConnection(dc.name)) its->ForceExpire();
       }},
      {"stop", [this](auto& dc) { random.AnyOf(dc.conns)->Stop(); }},
      {"start", [this](auto& dc) { random.AnyOf(dc.conns)->Start(nullptr); }},
      {"publish", [this](auto& dc) { random.AnyOf(dc.publishers)->Publish(random.Data()); }},
      {"unpublish", [this](auto& dc) { random.AnyOf(dc.publishers)->Remove(); }},
      {"connect or disconnect", [this](auto& dc) { ToggleManaged(dc); }},
      {"add or remove", [this](auto& dc) { ToggleAdded(dc); }},
      {"cut the stream", [this](auto& /*dc*/) { stream.client.reset(); }},
      {"restart the agent", [this](auto& /*dc*/) { stream.RestartAgent(); }}};
  std::deque<zr::String> steps;  // the last ones
  int rounds = 0;
  int faults = 0;
  double warmMemory = 0;
};

}  // namespace
}  // namespace zr::halden::test

int main(int argc, char** argv) {
  using namespace zr::halden::test;
  unsigned seed = std::random_device()();
  int minutes = 1;
  CLI::App app("Random faults against real servers, with everything checked after each round.");
  app.add_option("--minutes", minutes, "how long")->check(CLI::PositiveNumber);
  app.add_option("--seed", seed, "repeats a run, as far as the machine allows");
  CLI11_PARSE(app, argc, argv);
  std::cout << "seed " << seed << std::endl;
  Soak soak(seed);
  try {
    for (const auto end = Clock::now() + std::chrono::minutes(minutes); Clock::now() < end;) {
      soak.Round();
      soak.Report("so far");
    }
  } catch (const std::exception& e) {
    std::cout << "soak failed, seed " << seed << ": " << e.what() << "\nafter these steps:\n";
    for (const auto& step : soak.steps) std::cout << "  " << step << "\n";
    std::cout << std::flush;
    _exit(1);  // threads may be stuck
  }
  soak.Report("soak passed");
  return 0;
}
