// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>

#include "model/node_codec.h"
#include "simulation/network.h"

namespace zr::halden::simulation {

/// The life of a node, from its creation to its deletion.
struct Incarnation {
  std::set<std::string> hosts;  ///< of the instance, as the node's data said one after the other
  std::optional<Time> deleted;
};

enum class Mode : std::uint8_t {
  Down,
  Frozen,
  Looking,  ///< for a leader: takes no client
  Serving,
  Deposed  ///< leads nobody and does not know it: answers what needs no other server
};

struct Server {
  std::string name{}, address{};
  Mode mode = Mode::Serving;
  Tree tree{};
  std::size_t applied = 0;  ///< transactions of the log
  Duration lag{1ms};
  bool applying = false, partitioned = false;
  bool refusing = false;  ///< clients
  bool cut = false;       ///< from the other servers
  bool led = false;       ///< when it was frozen
  Time deposedUntil{};
  std::vector<std::shared_ptr<Link>> links{};

  void DropLinks(bool loseTail) {
    for (const auto& link : std::vector(links)) link->Break(loseTail);
  }
};

/// The servers of a data centre: a log of transactions that a leader commits and all apply in order, each in its own
/// time. A write is answered where it was asked as soon as it is applied there; reads are answered from what is applied.
struct Ensemble {
  Ensemble(int itsNumber, std::size_t count) : number(itsNumber), servers(count), leader(&servers.front()) {
    world->ensembles.push_back(this);
    for (std::size_t i = 0; i < count; ++i) {
      servers[i].name = std::to_string(number) + "." + std::to_string(i);
      servers[i].address = "10." + std::to_string(number) + ".0." + std::to_string(i) + ":2181";
    }
    Tick();
  }

  // What may happen to it.
  void Kill(Server& server) { Leave(server, Mode::Down); }
  void Start(Server& server) {
    if (server.mode == Mode::Down) server.mode = Mode::Looking;
  }
  void Freeze(Server& server) {
    if (server.mode != Mode::Serving) return;
    NoteReached();
    server.led = leader == &server;
    server.mode = Mode::Frozen;
    world->Note("server %s is frozen", server.name.c_str());
  }

  void Thaw(Server& server) {
    if (server.mode != Mode::Frozen) return;
    world->Note("server %s is thawed", server.name.c_str());
    if (leader == &server) {  // nobody else could be elected
      server.mode = Mode::Serving;
      EndSessions();
    } else if (server.led && world->faults[Fault::DeposedLeader] && !world->OneIn(3)) {
      server.mode = Mode::Deposed;
      server.deposedUntil = world->now + world->Between(100ms, 2s);
      world->Note("... and believes that it leads");
    } else if (server.led || world->OneIn(2)) {
      Leave(server, Mode::Looking);
    } else {  // a follower that goes on where it was
      server.mode = Mode::Serving;
      CatchUp(server);
    }
    Pump(server);
  }

  void CutFromPeers(Server& server) {
    if (server.mode != Mode::Serving || servers.size() == 1) return;
    server.cut = true;
    if (leader == &server && world->faults[Fault::DeposedLeader]) {
      server.mode = Mode::Deposed;
      server.deposedUntil = world->now + world->Between(500ms, 4s);
    }
  }

  void RejoinAll() {
    for (auto& server : servers) server.cut = false;
  }
  /// Servers that are up and refuse clients, but for one.
  void RefuseClients(const Server& except, bool on) {
    for (auto& server : servers) {
      server.refusing = on && &server != &except;
      if (server.refusing) server.DropLinks(true);
    }
  }

  void Partition(Server& server, bool on) {
    NoteReached();
    server.partitioned = on;
  }

  void LoseData() {
    ++life;
    for (auto& server : servers) {
      Leave(server, Mode::Looking);
      server.tree = Tree();
      server.applied = 0;
      server.applying = server.cut = false;
    }
    leader = nullptr;
    log.clear();
    heard.clear();
    denied.clear();
    epoch = lastZxid = 0;
    for (auto& [path, incarnations] : history) {
      if (!incarnations.back().deleted) incarnations.back().deleted = world->now;
    }
  }

  void Expire(std::int64_t session) {
    if (HasQuorum()) EndSession(session, Ending::ByFault);
  }
  void Move(std::int64_t session) { owners[session] = nullptr; }
  void CutAnyLink() {
    Server& server = world->OneOf(servers);
    if (server.links.empty()) return;
    lastTrouble = world->now;  // a session may begin whose client never learns of it
    const auto link = world->OneOf(server.links);
    link->Break(world->OneIn(2));
  }

  void Heal() {
    denied.clear();
    for (auto& server : servers) {
      server.partitioned = server.cut = server.refusing = false;
      server.lag = world->Between(100us, 20ms);
      Start(server);
      Thaw(server);
    }
  }

  /// The other party: writes without a connection, at the leader.
  int Write(Message write) {
    if (!HasQuorum()) return ZCONNECTIONLOSS;
    const int code = leader->tree.Check(write);
    if (code != ZOK) return code;
    ++othersWrites[write.path];
    Commit({.writes = {std::move(write)}});
    return code;
  }

  const Tree* Truth() const { return HasQuorum() ? &leader->tree : nullptr; }
  std::vector<std::int64_t> Sessions() const {
    std::vector<std::int64_t> sessions;
    if (!HasQuorum()) return sessions;
    for (const auto& [session, timeout] : leader->tree.sessions) sessions.push_back(session);
    return sessions;
  }

  enum class Ending : std::uint8_t { ByClient, ByTimeout, ByFault };
  std::function<void(int timeout, Ending ending)> onSessionEnd = [](int, Ending) {};

  bool HasQuorum() const {
    if (leader == nullptr || leader->mode != Mode::Serving || leader->cut) return false;
    const auto count = std::count_if(servers.begin(), servers.end(), [](const Server& server) {
      return !server.cut && (server.mode == Mode::Serving || server.mode == Mode::Looking);
    });
    return 2 * static_cast<std::size_t>(count) > servers.size();
  }

  /// by its clients
  bool Reached() const {
    return std::any_of(servers.begin(), servers.end(), [](const Server& server) {
      return !server.partitioned && !server.refusing &&
             (server.mode == Mode::Serving || server.mode == Mode::Deposed);
    });
  }

  void NoteReached() {
    if (Reached()) lastReached = world->now;
  }

  // The course of things.
  void Tick() {
    for (auto& server : servers) {
      if (server.mode == Mode::Deposed && world->now > server.deposedUntil) Leave(server, Mode::Looking);
      if (server.mode == Mode::Serving && server.cut) Leave(server, Mode::Looking);
    }
    Elect();
    if (HasQuorum()) {
      EndSessions();
      if (world->now > nextContainerCheck) RemoveContainers();
    }
    const bool trouble = std::any_of(servers.begin(), servers.end(), [](const Server& server) {
      return server.mode != Mode::Serving || server.partitioned || server.cut || server.refusing ||
             server.lag > 100ms;
    });
    if (trouble || !HasQuorum() || !denied.empty()) lastTrouble = world->now;
    NoteReached();
    world->After(world->Between(50ms, 150ms), [this] { Tick(); });
  }

  void Elect() {
    const bool led = HasQuorum();
    std::vector<Server*> present;
    for (auto& server : servers) {
      if (!led && server.mode == Mode::Serving && servers.size() > 1) Leave(server, Mode::Looking);
      if (server.mode != Mode::Looking || server.cut) continue;
      if (!led) {
        present.push_back(&server);
      } else if (world->OneIn(3)) {
        Apply(server, log.size());
        server.mode = Mode::Serving;
      }
    }
    if (2 * present.size() > servers.size() && world->OneIn(4)) Lead(*world->OneOf(present));
  }

  void Lead(Server& server) {
    world->Note("server %s leads", server.name.c_str());
    leader = &server;
    lastZxid = ++epoch << 32U;
    Apply(server, log.size());
    server.mode = Mode::Serving;
    heard.clear();
  }

  void EndSessions() {
    std::vector<std::int64_t> over;
    for (const auto& [session, timeout] : leader->tree.sessions) {
      const auto last = heard.try_emplace(session, world->now).first->second;
      if (world->now - last > std::chrono::milliseconds(timeout)) over.push_back(session);
    }
    for (const auto session : over) EndSession(session, Ending::ByTimeout);
  }

  void RemoveContainers() {
    nextContainerCheck = world->now + 20s;
    std::vector<std::string> empty;
    for (const auto& [path, node] : leader->tree.nodes) {
      if (node.container && node.children.empty() && node.stat.cversion > 0) empty.push_back(path);
    }
    for (const auto& path : empty) Write({.op = Message::Delete, .path = path});
  }

  void Leave(Server& server, Mode mode) {
    if (server.mode != mode) world->Note("server %s mode %d", server.name.c_str(), static_cast<int>(mode));
    NoteReached();
    server.mode = mode;
    server.DropLinks(mode == Mode::Down && world->OneIn(2));
  }

  /// The length of the log with it.
  std::size_t Commit(Transaction transaction) {
    transaction.zxid = ++lastZxid;
    transaction.time = world->now.time_since_epoch() / 1ms;
    Record(transaction);
    log.push_back(std::move(transaction));
    Apply(*leader, log.size());
    for (auto& server : servers) CatchUp(server);
    return log.size();
  }

  void EndSession(std::int64_t session, Ending ending) {
    const auto found = leader->tree.sessions.find(session);
    if (found == leader->tree.sessions.end()) return;
    if (!taken.contains(session)) ending = Ending::ByFault;  // its client has never heard of it
    world->Note("session %llx of %d ends, %d", static_cast<unsigned long long>(session), found->second,
                static_cast<int>(ending));
    onSessionEnd(found->second, ending);
    Commit({.kind = Transaction::CloseSession, .session = session});
  }

  /// Before it is applied: what a session's end deletes is to be seen yet.
  void Record(const Transaction& transaction) {
    const auto close = [&](const std::string& path) {
      const auto found = history.find(path);
      if (found != history.end()) found->second.back().deleted = world->now;
    };
    if (transaction.kind == Transaction::CloseSession) {
      for (const auto& path : leader->tree.Ephemerals(transaction.session)) close(path);
    }
    for (const auto& write : transaction.writes) {
      if (write.op == Message::Delete) close(write.path);
      if (write.op == Message::Create) history[write.path].emplace_back();
      if (write.data.empty()) continue;
      const auto node = details::DecodeNode(write.data);
      history[write.path].back().hosts.insert(node.payload ? details::ParsePayload(*node.payload).host()
                                                           : "");
    }
  }

  void CatchUp(Server& server) {
    if (server.applied == log.size() || server.mode != Mode::Serving || std::exchange(server.applying, true))
      return;
    const auto delay = world->Between(0s, server.lag + 1us);
    world->After(delay, [this, &server, until = log.size(), its = life] {
      if (its != life) return;
      server.applying = false;
      if (server.mode != Mode::Serving || server.cut) return;
      Apply(server, until);
      CatchUp(server);
    });
  }

  void Apply(Server& server, std::size_t until) {
    while (server.applied < until) {
      const Transaction& transaction = log[server.applied++];
      server.tree.Apply(transaction, [&](int type, const std::string& path) { Tell(server, type, path); });
      if (transaction.kind != Transaction::CloseSession) continue;
      for (const auto& link : std::vector(server.links)) {
        const bool asks = !link->requests.empty() && link->requests.front()->op == Message::Close;
        if (link->session == transaction.session && !asks) link->Break(false);
      }
    }
    world->After(0s, [this, &server] { Pump(server); });
  }

  void Tell(Server& server, int type, const std::string& path) {
    for (const auto& link : server.links) {
      bool watched = type != ZOO_CHILD_EVENT && link->dataWatches.erase(path) != 0;
      if (type == ZOO_CHILD_EVENT || type == ZOO_DELETED_EVENT)
        watched |= link->childWatches.erase(path) != 0;
      if (!watched) continue;
      const bool mayNotRead = world->faults[Fault::LostEvent] && denied.contains(path);
      if (mayNotRead || world->Strikes(Fault::LostEvent, 100)) {
        world->Note("server %d: event %d of %.60s is lost", number, type,
                    path.c_str() + (path.size() > 60 ? path.size() - 60 : 0));
      } else {
        link->Answer(Make({.op = Message::Event, .path = path, .flags = type}));
      }
    }
  }

  // How a server answers its clients.
  void Arrive(Link& link, MessagePtr message);
  void Gone(Link& link);
  void Pump(Server& server);
  void Pump(Link& link);
  bool Serve(Link& link, const Message& request);
  void TakeOver(Link& link);
  bool ServeConnect(Link& link, const Message& request);
  bool ServeWrite(Link& link, const Message& request);
  int Decide(const Message& request, std::int64_t session, Stat& stat);
  bool ServeRead(Link& link, const Message& request);
  bool ServeWatches(Link& link, const Message& request);
  static bool Reply(Link& link, const Message& request, MessagePtr answer);

  const int number;
  Duration distance = world->OneIn(2) ? Duration() : world->Between(1ms, 500ms);  ///< from clients, one way
  std::uint64_t bandwidth = 0;  ///< bytes a second of each connection; 0: as much as there is
  std::vector<Server> servers;
  Server* leader;
  std::vector<Transaction> log{};
  std::int64_t epoch = 1;
  std::int64_t lastZxid = std::int64_t{1} << 32U;
  std::int64_t lastSession = 0;
  std::map<std::int64_t, Time> heard{};       ///< of a session
  std::map<std::int64_t, Link*> owners{};     ///< the link that a session came by last
  std::set<std::int64_t> taken{};             ///< sessions whose clients know of them
  std::set<std::string, PathOrder> denied{};  ///< nodes that may not be read
  std::map<std::string, std::vector<Incarnation>, PathOrder> history{};
  std::map<std::string, std::uint64_t> othersWrites{};  ///< by path
  Time lastReached{};
  Time lastTrouble{};  ///< when something of the faults above was last so
  Time nextContainerCheck{world->now + 20s};
  unsigned life = 0;        ///< times that all data was lost
  std::uint64_t asked = 0;  ///< requests that come only when something has happened, and not of an audit
};

}  // namespace zr::halden::simulation
