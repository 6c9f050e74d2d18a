// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <zookeeper/zookeeper.h>

#include <set>

#include "simulation/world.h"

namespace zr::halden::simulation {

struct Server;

/// A packet, one way or the other. Which of the fields mean something depends on the operation.
struct Message {
  // clang-format off
  enum Op { Connect, Ping, SetWatches, Close, Event, Get, GetChildren, Exists, Sync, Create, Set, Delete, Check, Multi };
  // clang-format on
  Op op = Ping;
  int xid = 0;
  std::string path = {};
  std::string data = {};
  bool watch = false;
  int flags = 0;  ///< Create: the mode; Event: its type
  int version = -1;
  std::int64_t zxid = 0;  ///< Connect, SetWatches: the newest that the client has seen; answers: the server's
  std::int64_t session = 0;                ///< Connect and its answer
  int timeout = 0;                         ///< the same
  std::vector<Message> parts = {};         ///< Multi
  std::vector<std::string> lists[3] = {};  ///< SetWatches: on data, on absence, on children
  int code = ZOK;                          ///< answers, as all below
  Stat stat = {};
  std::vector<std::string> children = {};
};
using MessagePtr = std::shared_ptr<Message>;

inline MessagePtr Make(Message message) {
  return std::make_shared<Message>(std::move(message));
}

/// Of paths: children behind their parents, and the ends compared first, since a run's paths may share 26 kB.
struct PathOrder {
  bool operator()(const std::string& left, const std::string& right) const {
    if (left.size() != right.size()) return left.size() < right.size();
    const auto tail = left.size() - std::min<std::size_t>(left.size(), 48);
    const int ends = left.compare(tail, std::string::npos, right, tail, std::string::npos);
    return ends != 0 ? ends < 0 : left < right;
  }
};

/// A connection between a client and a server: both ends, and the network between. What is sent arrives in
/// order, each way after a time of its own.
struct Link : std::enable_shared_from_this<Link> {
  Link(Ensemble& itsEnsemble, Server& itsServer, int number)
      : ensemble(itsEnsemble), server(itsServer), descriptor(number) {}
  /// A client begins to connect. Null for an address that nobody has.
  static std::shared_ptr<Link> Open(const std::string& address);
  static std::shared_ptr<Link> Find(int descriptor);

  // The client's end.
  short Ready(short events) const;  ///< as poll would say
  bool Ended() const { return ended && inbox.empty(); }
  void Send(MessagePtr message) { Put(toServer, std::move(message)); }
  MessagePtr Receive();
  void GiveUp();  ///< as if it had broken, for the client
  void Leave();   ///< closes the client's end

  // The server's end.
  void Answer(MessagePtr message) { Put(toClient, std::move(message)); }
  void Break(bool loseTail);  ///< the server's end is closed, or the connection cut

  /// One direction. Null instead of a message: the end.
  struct Way {
    std::deque<std::pair<Time, MessagePtr>> packets{};  ///< under way, with the time of their arrival
    Time last{};
    bool moving = false;
  };
  void Knock();
  void Put(Way& way, MessagePtr message);
  void Carry(Way& way, Duration delay);
  void Arrive(const Way& way, const MessagePtr& message);

  Ensemble& ensemble;
  Server& server;
  const int descriptor;
  std::function<void()> wake{};  ///< who waits for it
  bool stands = false, refused = false, ended = false, left = false;
  std::deque<MessagePtr> inbox{};
  Way toClient{}, toServer{};

  // What the server knows of it.
  std::int64_t session = 0;
  bool closing = false;               ///< nothing is read from it any more
  std::deque<MessagePtr> requests{};  ///< that the server has not answered yet
  std::size_t waitsFor = 0;  ///< the first request: for the log to be applied so far; 0 for not yet begun
  MessagePtr prepared{};     ///< its answer
  std::set<std::string, PathOrder> dataWatches{}, childWatches{};
};

inline std::string ParentOf(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

/// A committed transaction: operations that were found to be possible, under one number.
struct Transaction {
  enum Kind { OpenSession, CloseSession, Write };
  Kind kind = Write;
  std::int64_t zxid = 0;
  std::int64_t session = 0;
  std::int64_t time = 0;
  int timeout = 0;
  std::vector<Message> writes = {};
};

/// What one server holds: nodes and sessions, as of one transaction.
struct Tree {
  struct Node {
    std::string data;
    Stat stat{};
    std::set<std::string> children;
    bool container = false;
  };
  /// A watched thing has happened: the event's type, and the node's path.
  using Trigger = std::function<void(int type, const std::string& path)>;

  std::map<std::string, Node, PathOrder> nodes{{"/", {}}};
  std::map<std::int64_t, int> sessions{};  ///< and their timeouts
  std::int64_t zxid = 0;

  const Node* Find(const std::string& path) const {
    const auto found = nodes.find(path);
    return found == nodes.end() ? nullptr : &found->second;
  }

  /// Why a write is impossible; ZOK when it is not.
  int Check(const Message& write) const {
    const Node* const node = Find(write.path);
    if (write.op == Message::Create) {
      const Node* const parent = Find(ParentOf(write.path));
      if (parent == nullptr) return ZNONODE;
      if (node != nullptr) return ZNODEEXISTS;
      return parent->stat.ephemeralOwner != 0 ? ZNOCHILDRENFOREPHEMERALS : ZOK;
    }
    if (node == nullptr) return ZNONODE;
    if (write.version != -1 && write.version != node->stat.version) return ZBADVERSION;
    return write.op == Message::Delete && !node->children.empty() ? ZNOTEMPTY : ZOK;
  }

  void Apply(const Transaction& transaction, const Trigger& trigger) {
    zxid = transaction.zxid;
    if (transaction.kind == Transaction::OpenSession) sessions[transaction.session] = transaction.timeout;
    for (const auto& write : transaction.writes) {
      if (write.op == Message::Delete) Remove(write.path, trigger);
      if (write.op == Message::Create || write.op == Message::Set) Put(write, transaction, trigger);
    }
    if (transaction.kind != Transaction::CloseSession) return;
    sessions.erase(transaction.session);
    for (const auto& path : Ephemerals(transaction.session)) Remove(path, trigger);
  }

  std::vector<std::string> Ephemerals(std::int64_t session) const {
    std::vector<std::string> paths;
    for (const auto& [path, node] : nodes) {
      if (node.stat.ephemeralOwner == session) paths.push_back(path);
    }
    return paths;
  }

  void Put(const Message& write, const Transaction& transaction, const Trigger& trigger) {
    Node& node = nodes[write.path];
    node.data = write.data;
    node.stat.dataLength = static_cast<int>(write.data.size());
    node.stat.mzxid = zxid;
    node.stat.mtime = transaction.time;
    if (write.op == Message::Set) {
      ++node.stat.version;
      return trigger(ZOO_CHANGED_EVENT, write.path);
    }
    node.stat.czxid = node.stat.pzxid = zxid;
    node.stat.ctime = transaction.time;
    node.container = write.flags == ZOO_CONTAINER;
    if (write.flags == ZOO_EPHEMERAL) node.stat.ephemeralOwner = transaction.session;
    trigger(ZOO_CREATED_EVENT, write.path);
    ChangeParent(write.path, 1, trigger);
  }

  void Remove(const std::string& path, const Trigger& trigger) {
    if (nodes.erase(path) == 0) return;
    trigger(ZOO_DELETED_EVENT, path);
    ChangeParent(path, -1, trigger);
  }

  void ChangeParent(const std::string& path, int by, const Trigger& trigger) {
    const auto name = path.substr(path.rfind('/') + 1);
    const auto parentPath = ParentOf(path);
    Node& parent = nodes[parentPath];
    by > 0 ? static_cast<void>(parent.children.insert(name)) : static_cast<void>(parent.children.erase(name));
    ++parent.stat.cversion;
    parent.stat.numChildren += by;
    parent.stat.pzxid = zxid;
    trigger(ZOO_CHILD_EVENT, parentPath);
  }
};

}  // namespace zr::halden::simulation
