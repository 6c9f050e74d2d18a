// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "simulation/scripted.h"

#include <iostream>

#include "simulation/data_center.h"

namespace zr::halden::simulation {

namespace {

std::shared_ptr<Connection> ConnectTo(const std::string& hosts, std::chrono::milliseconds timeout) {
  auto connection = std::make_shared<Connection>(std::vector<zr::String>{hosts}, true, "", timeout, "dc0");
  connection->Start(nullptr);
  return connection;
}

}  // namespace

void SpreadsReads(DataCenter& dc) {
  std::vector<std::shared_ptr<ServiceWatcher>> watchers;
  const auto await = [&](auto condition) {
    const auto end = world->now + 60s;
    while (!condition() && world->now < end) world->RunUntil(world->now + 1s);
  };
  const auto live = [&] {
    return std::all_of(watchers.begin(), watchers.end(),
                       [](auto& one) { return one->Status().freshness == Freshness::Live; });
  };
  for (int i = 0; i < 60; ++i) dc.Put(DrawId());
  for (int i = 0; i < 12; ++i) {
    const auto connection = ConnectTo(dc.ensemble.servers.front().address + dc.chroot, 6s);
    watchers.push_back(std::make_shared<ServiceWatcher>(connection, kService, [](int) {}));
    watchers.back()->Start();
  }
  await(live);
  const auto first = std::exchange(world->pauses, {});
  for (const auto session : dc.ensemble.Sessions()) dc.ensemble.Expire(session);
  await([&] { return world->pauses.size() == watchers.size() && live(); });
  const auto [least, most] = std::minmax_element(world->pauses.begin(), world->pauses.end());
  if (!live() || first.empty() || world->pauses.empty() || *most - *least <= 2ms ||
      std::any_of(first.begin(), first.end(), [](Duration pause) { return pause >= 1ms; }))
    world->Violation("known services are not read at different moments");
}

void DistrustsDeposedLeaders(DataCenter& dc) {
  world->faults[Fault::DeposedLeader] = true;
  const auto run = [&](Duration time) {
    for (const auto end = world->now + time; world->now < end; dc.Check()) world->RunUntil(world->now + 1s);
  };
  dc.Heal();
  for (const auto& id : dc.ids) dc.Put(id);
  dc.Watch(nullptr, nullptr);
  run(10s);
  Ensemble& ensemble = dc.ensemble;
  Server& leader = *ensemble.leader;
  if (ensemble.servers.size() > 1) {
    ensemble.Freeze(leader);
    run(10s);
    for (int i = 0; i < 5; ++i) dc.Put(DrawId());
    run(1s);
    ensemble.RefuseClients(leader, true);
    run(world->Between(2s, 6s));
    ensemble.Thaw(leader);
    run(3s);
    ensemble.RefuseClients(leader, false);
  }
  run(60s);
  if (const auto wrong = dc.Wrong(); !wrong.empty()) world->Violation(wrong);
}

void LeavesSilentServers(DataCenter& dc) {
  dc.ensemble.distance = 10ms;
  world->RunUntil(world->now + 10s);
  auto& servers = dc.ensemble.servers;
  Server& silent = world->OneOf(servers);
  if (servers.size() == 1) {  // nobody to go to
  } else if (world->OneIn(2)) {
    dc.ensemble.Freeze(silent);
  } else {
    dc.ensemble.Partition(silent, true);
  }
  std::string hosts;
  for (const auto& server : servers) hosts += (hosts.empty() ? "" : ",") + server.address;
  world->RunUntil(world->now + 10s);
  std::vector<std::shared_ptr<Connection>> connections;
  for (int i = 0; i < 12; ++i) connections.push_back(ConnectTo(hosts, 30s));
  world->RunUntil(world->now + 4s);
  for (const auto& client : dc.clients) connections.push_back(client.connection);
  for (const auto& one : connections) {
    if (one->Status().state != ConnectionState::Connected)
      world->Violation("one of three servers that is silent keeps clients from the others");
  }
}

namespace {

struct Listener : ServiceWatcherObserver {
  void OnInstanceAdded(ServiceWatcher&, const ServiceId&, const ServiceInstanceData&) override { Hear(); }
  void OnInstanceModified(ServiceWatcher&, const ServiceId&, const ServiceInstanceData&) override { Hear(); }
  void OnInstanceRemoved(ServiceWatcher&, const ServiceId&) override { Hear(); }
  void Hear() { last = world->now; }
  Time last{};
};

/// A watcher and a publisher, each with a connection of its own, and how long what they do takes in round trips.
struct FarAway {
  FarAway(DataCenter& its, Duration itsTrip, std::uint64_t bandwidth = 0) : trip(itsTrip), dc(its) {
    dc.ensemble.distance = trip / 2;
    dc.ensemble.bandwidth = bandwidth;
    dc.Destroy();
    world->RunUntil(world->now + 60s);
  }

  std::shared_ptr<Connection> Connect() {
    auto connection = ConnectTo(dc.ensemble.servers.front().address + dc.chroot, 3s);
    world->RunUntil(world->now + 10s);
    return connection;
  }

  double Trips(const std::function<Time()>& act, Duration limit = 5s) {
    const Time begin = act();
    world->RunUntil(world->now + limit);
    return listener->last < begin ? 1e9 : (listener->last - begin) / 1.0 / trip;
  }

  /// What comes in the way now and then counts no more than the half of the times.
  double Median(const std::function<Time()>& act) {
    std::vector<double> trips(15);
    for (double& one : trips) one = Trips(act);
    std::sort(trips.begin(), trips.end());
    return trips[trips.size() / 2];
  }

  void AtMost(double limit, double trips, const char* what) {
    if (trips > limit)
      world->Violation(what + (" took " + std::to_string(trips)) + " round trips, not " +
                       std::to_string(limit));
  }

  const Duration trip;
  DataCenter& dc;
  std::shared_ptr<Listener> listener = std::make_shared<Listener>();
};

}  // namespace

void FollowsFromFarAway(DataCenter& dc) {
  FarAway far(dc, 400ms);
  dc.ids.resize(2000);
  for (auto& id : dc.ids) dc.Put(id = DrawId());
  auto watched = far.Connect();
  auto watcher = std::make_shared<ServiceWatcher>(watched, kService, [](int) {});
  watcher->RegisterShared(far.listener);
  far.AtMost(12, far.Trips([&] { return watcher->Start(), world->now; }, 30s), "the load of 2,000");

  auto published = far.Connect();
  const int asked = world->asked;
  const auto absent = std::make_shared<ServiceWatcher>(published, "absent", [](int) {});
  far.Trips([&] { return absent->Start(), world->now; });
  if (world->asked - asked > 200) world->Violation("all lists of a service that is not there are asked for");
  std::unique_ptr<ServicePublisher> publisher;
  const auto join = [&] {
    publisher = std::make_unique<ServicePublisher>(published, kService, DrawId());
    publisher->Publish(NewData("p"));
    const Time end = world->now + 60s;
    while (dc.HistoryOf(publisher->Id()).empty() && world->now < end) world->RunUntil(world->now + 1ms);
    return world->now;
  };
  far.AtMost(1.6, far.Median(join), "a join");
  far.AtMost(1.6, far.Median([&] { return dc.Put(dc.ids[0]), world->now; }), "an update");
  far.AtMost(0.6, far.Median([&, i = 1UL]() mutable { return dc.Delete(dc.ids[i++]), world->now; }),
             "a removal");

  watcher->SetAudit({5min, 60s});
  for (auto& link : dc.ensemble.servers.front().links) link->dataWatches.erase(dc.PathOf(dc.ids[0]));
  far.AtMost(170, far.Trips([&] { return dc.Put(dc.ids[0]), world->now; }, 80s), "what the audit finds");
  if (watcher->Status().drifts != 1) world->Violation("a drift was not counted");

  const auto queue = std::make_shared<EventQueue>();
  watcher->RegisterShared(queue);
  watcher->SetMassRemovalGuard(MassRemovalGuard{0.1, 10s});
  const auto holds = [&](Duration time) {
    world->RunUntil(world->now + time);
    bool held = false;
    for (const auto& event : queue->Drain())
      held = event.IsInstance() ? held : event.status.watcher.held != 0;
    return held;
  };
  holds(5s);
  dc.DeleteMany();
  if (!holds(5s) || holds(20s)) world->Violation("what the guard holds is not told when it begins or ends");

  auto other = std::make_shared<ServiceWatcher>(watched, "others", [](int) {});
  other->Start();
  world->RunUntil(world->now + 10s);
  other.reset();
  world->RunUntil(world->now + 10s);
  if (watched->Status().reconnects != 0)
    world->Violation("a watcher that ended cost its connection the handle");
  const auto reads = watcher->Status().resyncs;
  dc.ensemble.servers.front().DropLinks(false);
  world->RunUntil(world->now + 20s);
  if (watched->Status().reconnects != 1 || watcher->Status().resyncs != reads)
    world->Violation("a connection that was lost for a moment cost a read of everything");
}

void RetriesInGoodTime(DataCenter& dc) {
  dc.ensemble.distance = 10ms;
  dc.Heal();
  world->RunUntil(world->now + 30s);
  const auto& publisher = *dc.publishers[0].it;
  const auto path = dc.PathOf(publisher.Id());
  const auto isThere = [&] { return HostOf(dc.ensemble.Truth()->Find(path)) == dc.publishers[0].host; };
  for (int i = 0; i < 12; ++i) {  // each a failure of its own, long after the one before
    dc.ensemble.denied.insert(path);
    dc.Put(publisher.Id());
    world->RunUntil(world->now + 1s);
    if (isThere()) world->Violation("written over what may not be seen");
    dc.ensemble.denied.clear();
    world->RunUntil(world->now + 5s);
    if (!isThere()) world->Violation("a failure is made up for later than the one before");
    world->RunUntil(world->now + 40s);
  }
  const auto wage = [&](const std::function<void()>& attack, const std::function<std::size_t()>& deeds) {
    const auto before = deeds();
    for (int i = 0; i < 600; ++i, world->RunUntil(world->now + 100ms)) attack();
    if (deeds() - before > 40) world->Violation("a war of more than 40 writes in a minute");
  };
  std::size_t others = 0;
  wage([&] { dc.Put(publisher.Id()), ++others; },
       [&] { return static_cast<std::size_t>(dc.ensemble.Truth()->Find(path)->stat.version) - others; });
  wage([&] { dc.Delete(publisher.Id()); }, [&] { return dc.HistoryOf(publisher.Id()).size(); });
}

void LoadsOverANarrowWay(DataCenter& dc) {
  FarAway far(dc, 100ms, 50'000);
  for (int i = 0; i < 3000; ++i) dc.Put(DrawId());
  // At the end 16 of these are under way at once, which takes longer than the session may be silent.
  for (int i = 0; i < 20; ++i) {
    auto data = NewData("l");
    for (int j = 0; j < 50'000; ++j)
      data.mutable_host()->push_back(static_cast<char>('a' + world->Below(26)));
    dc.Put(dc.chroot + details::InstancePath(details::ServicePath("large"), DrawId()), data);
  }
  auto connection = far.Connect();
  auto watcher = std::make_shared<ServiceWatcher>(connection, kService, [](int) {});
  watcher->SetAudit({24h, 24h});
  watcher->Start();
  world->RunUntil(world->now + 2s);
  auto publisher = std::make_unique<ServicePublisher>(connection, "others", DrawId());
  auto data = NewData("p");
  data.clear_service_name();
  publisher->Publish(data);
  constexpr Duration way = 65536s / 50'000;
  world->RunUntil(world->now + 6 * far.trip + way);  // for creating two parents, and the node
  if (publisher->Status().state != PublishState::Published || watcher->Status().freshness == Freshness::Live)
    world->Violation("a write waited for the end of a load");
  world->RunUntil(world->now + 20s);
  auto largest = std::make_shared<ServiceWatcher>(connection, "large", [](int) {});
  largest->SetAudit({24h, 24h});
  largest->Start();
  world->RunUntil(world->now + 40s);
  for (const auto& one : {watcher, largest}) {
    if (one->Status().freshness != Freshness::Live) world->Violation("not live over a narrow way");
  }
  if (connection->Status().sessions != 1 || connection->Status().reconnects != 0)
    world->Violation("a narrow way cost the connection");
}

bool PlayScripted(std::uint64_t seed, Course course) {
  World played(seed);
  played.faults.reset();
  DataCenter dc(0);
  course(dc);
  const auto wrong = std::exchange(played.violation, {});
  if (!wrong.empty()) std::cout << "seed " << seed << ", in a scripted play: " << wrong << std::endl;
  dc.Destroy();
  played.RunUntil(played.now + 60s);
  return wrong.empty();
}

}  // namespace zr::halden::simulation
