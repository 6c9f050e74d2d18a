// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include "halden/connection_v2.h"
#include "halden/service_publisher.h"
#include "model/layout.h"
#include "model/node_codec.h"
#include "simulation/checker.h"

namespace zr::halden::simulation {

inline constexpr const char* kService = "orders";

inline ServiceId DrawId() {
  ServiceId id{};
  for (auto& byte : id) byte = static_cast<std::uint8_t>(world->Below(256));
  return id;
}

inline ServiceInstanceData NewData(const char* prefix) {
  ServiceInstanceData data;
  data.set_service_name(kService);
  data.set_host(prefix + std::to_string(world->Draw() >> 24U));
  return data;
}

/// What an instance's node says is its host; empty for what does not decode.
inline std::string HostOf(const Tree::Node* node) {
  const auto decoded = node == nullptr ? details::DecodedNode() : details::DecodeNode(node->data);
  return decoded.payload ? details::ParsePayload(*decoded.payload).host() : "";
}

/// A connection. Its session timeout is its own, so that the servers know it.
struct Client {
  std::shared_ptr<Connection> connection;
  int timeout = 0;
  int mayEnd = 0;        ///< sessions that the application has asked to end
  bool stopped = false;  ///< ever

  void Start() { connection->Start(nullptr); }
  void Stop() {
    ++mayEnd;
    stopped = true;
    world->Note("client %d stops", timeout);
    connection->Stop();
  }
  void ForceExpire() {
    ++mayEnd;
    world->Note("client %d ends its session", timeout);
    connection->ForceExpire();
  }
};

struct Publisher {
  std::unique_ptr<ServicePublisher> it;
  zr::String host;  ///< empty: not published

  void Publish() {
    const auto data = NewData("p");
    host = data.host();
    it->Publish(data);
  }
  void Remove() {
    host.clear();
    it->Remove();
  }
  void Replace(const std::vector<Client>& clients) {
    host.clear();
    it.reset();
    it = std::make_unique<ServicePublisher>(clients[world->OneIn(4) ? 1 : 0].connection, kService, DrawId());
  }
};

struct Watching : Audience {
  using Audience::Audience;
  Client* client = nullptr;
  std::shared_ptr<ServiceWatcher> watcher;
};

/// An ensemble, one who writes to it directly, and what the application has there: connections, publishers, watchers.
struct DataCenter {
  explicit DataCenter(int number)
      : name("dc" + std::to_string(number)),
        ensemble(number, world->OneIn(2) ? 1 : 3),
        chroot("/" + (world->faults[Fault::Budget] ? std::string(10'000 + world->Below(16'000), 'c') : "c")),
        ids(8 + world->Below(20)) {
    ensemble.onSessionEnd = [this](int timeout, Ensemble::Ending ending) { OnSessionEnd(timeout, ending); };
    for (auto& id : ids) id = DrawId();
    zr::String hosts;
    for (const auto& server : ensemble.servers) {
      hosts += hosts.empty() ? "" : ",";
      hosts += world->faults[Fault::Names] ? "zk" + server.address.substr(3) : server.address;
    }
    for (auto& client : clients) {
      client.timeout =
          static_cast<int>(4000 + 10 * world->Below(600)) + static_cast<int>(&client - clients.data());
      client.connection =
          std::make_shared<Connection>(std::vector<zr::String>{hosts + chroot}, true, zr::String(),
                                       std::chrono::milliseconds(client.timeout), name);
      client.Start();
    }
    for (auto& publisher : publishers) publisher.Replace(clients);
  }

  std::string PathOf(const ServiceId& id) const {
    return chroot + details::InstancePath(details::ServicePath(kService), id);
  }
  ServiceId AnyId() { return world->OneIn(10) ? world->OneOf(publishers).it->Id() : world->OneOf(ids); }
  const std::vector<Incarnation>& HistoryOf(const ServiceId& id) const {
    static const std::vector<Incarnation> none;
    const auto found = ensemble.history.find(PathOf(id));
    return found == ensemble.history.end() ? none : found->second;
  }

  // The other party's.
  void CreateParents(const std::string& path) {
    const Tree* const truth = ensemble.Truth();
    if (truth == nullptr || truth->Find(path) != nullptr) return;
    CreateParents(ParentOf(path));
    const bool container = path.size() > chroot.size() + details::kServicesPath.size();
    ensemble.Write(
        {.op = Message::Create, .path = path, .flags = container ? ZOO_CONTAINER : ZOO_PERSISTENT});
  }

  void Put(const ServiceId& id) { Put(PathOf(id), NewData("h")); }
  void Put(const std::string& path, const ServiceInstanceData& data) {
    const auto bytes = details::EncodeNode(data, {});
    if (ensemble.Write({.op = Message::Set, .path = path, .data = bytes}) != ZNONODE) return;
    CreateParents(ParentOf(path));
    ensemble.Write({.op = Message::Create, .path = path, .data = bytes});
  }

  void Delete(const ServiceId& id) { ensemble.Write({.op = Message::Delete, .path = PathOf(id)}); }
  void Garble(const ServiceId& id) {
    ensemble.Write({.op = Message::Set, .path = PathOf(id), .data = "\xff\xff garbage"});
  }
  void DeleteMany() {
    for (const auto& id : ids) {
      if (!world->OneIn(3)) Delete(id);
    }
  }
  void DeleteService() {
    const Tree* const truth = ensemble.Truth();
    if (truth == nullptr) return;
    std::vector<std::string> paths;
    for (const auto& [path, node] : truth->nodes) {
      if (path.starts_with(chroot + details::ServicePath(kService))) paths.push_back(path);
    }
    for (auto path = paths.rbegin(); path != paths.rend(); ++path)
      ensemble.Write({.op = Message::Delete, .path = *path});
  }

  // The application's.
  void Watch(const std::shared_ptr<ServiceWatcherObserver>& first,
             const std::shared_ptr<ServiceWatcherObserver>& last) {
    if (watchers.size() >= 3) return;
    // Mostly apart from publishers, whose writes hold up what is behind them.
    Client& client = clients[world->OneIn(4) ? 0 : 1];
    Watching one(
        "watcher " + std::to_string(world->Below(1000)), [this](const Key& key) -> auto& {
          return HistoryOf(key.second);
        });
    one.client = &client;
    one.watcher = std::make_shared<ServiceWatcher>(client.connection, kService, [](int) {});
    Audience::Equip(*one.watcher, std::chrono::milliseconds(500 + world->Below(10'000)));
    one.Observe(*one.watcher, first, last);
    one.watcher->Start();
    watchers.push_back(std::move(one));
  }

  void EndWatcher() {
    if (watchers.empty()) return;
    const auto position = watchers.begin() + static_cast<std::ptrdiff_t>(world->Below(watchers.size()));
    const auto ended = std::move(*position);  // may be what runs
    watchers.erase(position);
  }

  void Heal() {
    ensemble.Heal();
    for (auto& client : clients) client.Start();
    for (auto& publisher : publishers) publisher.Publish();
  }

  void Destroy() {
    watchers.clear();
    publishers.clear();
    for (auto& client : clients) {
      ++client.mayEnd;
      client.connection.reset();
    }
  }

  void OnSessionEnd(int timeout, Ensemble::Ending ending) {
    using Ending = Ensemble::Ending;
    for (auto& client : clients) {
      if (client.timeout != timeout || ending == Ending::ByFault) continue;
      const auto quiet = world->now - ensemble.lastTrouble;
      if (ending == Ending::ByTimeout && quiet <= std::chrono::milliseconds(2 * timeout) + 5s) continue;
      if (client.mayEnd > 0) {
        --client.mayEnd;
      } else {
        world->Violation(ending == Ending::ByClient
                             ? "a session was ended that nobody asked to end"
                             : "a session was left to expire although its servers were there");
      }
    }
  }

  /// Every now and then: what must hold at all times.
  void Check() {
    for (auto& publisher : publishers) {
      const auto done = ensemble.othersWrites[PathOf(publisher.it->Id())] + ensemble.life;
      if (publisher.it->Status().undone > done) world->Violation("undone by others, who have not done it");
    }
    for (auto& one : watchers) {
      const auto limit = std::chrono::milliseconds(one.client->timeout) + 1s;
      if (!ensemble.Reached() && world->now - ensemble.lastReached > limit &&
          one.watcher->Status().freshness == Freshness::Live)
        world->Violation("live, although no server can be reached");
      if (one.watcher->Status().drifts != 0 && !world->faults[Fault::LostEvent] &&
          !world->faults[Fault::Acl] && !world->faults[Fault::LostCompletion])  // which lose some too
        world->Violation("a drift was counted, and no event was lost");
      const bool swallowed = world->faults[Fault::ThrowFirst];  // by an observer before the queue
      if (one.consumer.Drain() != one.checker->hosts && !swallowed)
        world->Violation("an event queue says something else than the observer beside it heard");
    }
  }

  /// What is not as it must be some time after the last fault; empty when all is well.
  std::string Wrong() {
    const Tree* const truth = ensemble.Truth();
    for (const auto& [publisher, host] : publishers) {
      if (publisher->Status().state != PublishState::Published)
        return "publisher " + ToString(publisher->Id()) + " has not published";
      if (truth == nullptr || HostOf(truth->Find(PathOf(publisher->Id()))) != host)
        return "a publisher's node is not there";
    }
    for (auto& client : clients) {
      const auto status = client.connection->Status();
      if (status.state != ConnectionState::Connected) return "a connection is not connected";
      if (!client.stopped && status.sessions != status.expiries + 1)
        return "sessions and expiries do not add up";
    }
    for (auto& one : watchers) {
      if (auto text = WrongWith(one); !text.empty()) return text;
    }
    return "";
  }

  std::string WrongWith(Watching& one) {
    if (one.watcher->Status().freshness != Freshness::Live) return "a watcher is not live";
    if (!one.watcher->AwaitDelivered(0ms)) return "a watcher has not told all that it knows";
    View known;
    ServiceInstanceData data;
    for (const auto& id : one.watcher->ListInstances()) {
      if (one.watcher->GetInstanceData(id, data)) known[id] = data.host();
    }
    const auto text = Differs("a watcher", known);
    return text.empty() ? Differs(one, "an observer", "an event queue") : text;
  }

  /// From what the leader holds.
  std::string Differs(const char* who, const View& view) const {
    const Tree* const truth = ensemble.Truth();
    if (truth == nullptr) return "there is no truth";
    View rest = view;
    for (const auto& [path, node] : truth->nodes) {
      const auto id = ParseServiceId(path.substr(path.rfind('/') + 1));
      if (!id) continue;
      const auto host = HostOf(&node);
      const auto known = view.find(*id);
      if (!host.empty() && known == view.end()) return who + (" lacks " + ToString(*id));
      if (!host.empty() && known->second != host) return who + (" has another " + ToString(*id));
      rest.erase(*id);
    }
    return rest.empty() ? "" : who + (" still has " + ToString(rest.begin()->first));
  }

  std::string Differs(Audience& audience, const char* observer, const char* queue) const {
    const auto text = Differs(observer, ViewOf(audience.checker->hosts, name));
    if (!text.empty()) return text;
    const auto view = ViewOf(audience.consumer.Drain(), name);
    if (audience.consumer.freshness[name] != Freshness::Live)
      return std::string(queue) + " is not told it is live";
    return Differs(queue, view);
  }

  const zr::String name;
  Ensemble ensemble;
  const std::string chroot;
  std::vector<ServiceId> ids;
  std::vector<Client> clients{2};
  std::vector<Publisher> publishers{3};
  std::vector<Watching> watchers{};
};

}  // namespace zr::halden::simulation
