// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// How a server of the ensemble answers its clients. What serves a request is false when that has to wait.
#include "simulation/ensemble.h"

namespace zr::halden::simulation {

void Ensemble::Arrive(Link& link, MessagePtr message) {
  if (link.server.mode == Mode::Down) return;
  link.requests.push_back(std::move(message));
  Pump(link);
}

void Ensemble::Gone(Link& link) {
  const auto self = link.shared_from_this();
  link.closing = true;
  std::erase(link.server.links, self);
  const auto owner = owners.find(link.session);
  if (owner != owners.end() && owner->second == &link) owners.erase(owner);
}

void Ensemble::Pump(Server& server) {
  for (const auto& link : std::vector(server.links)) Pump(*link);
}

/// Answers as many requests as it can; those behind one that must wait wait too.
void Ensemble::Pump(Link& link) {
  const auto self = link.shared_from_this();
  const Mode& mode = link.server.mode;
  while (!link.closing && !link.requests.empty() && (mode == Mode::Serving || mode == Mode::Deposed)) {
    if (mode == Mode::Serving && link.session != 0) heard[link.session] = world->now;
    const auto request = link.requests.front();
    if (!Serve(link, *request)) return;
    link.waitsFor = 0;
    if (!link.requests.empty()) link.requests.pop_front();
  }
  if (mode == Mode::Looking) link.Break(false);
}

bool Ensemble::Reply(Link& link, const Message& request, MessagePtr answer) {
  answer->op = request.op;
  answer->xid = request.xid;
  answer->zxid = link.server.tree.zxid;
  link.Answer(std::move(answer));
  return true;
}

bool Ensemble::Serve(Link& link, const Message& request) {
  const auto op = request.op;
  if (op == Message::Connect) return ServeConnect(link, request);
  if (op == Message::Ping) return Reply(link, request, Make({}));
  if (op == Message::SetWatches) return ServeWatches(link, request);
  const bool audits = (op == Message::GetChildren || op == Message::Exists) && request.path != "/";
  if (!audits) ++asked;
  const bool reads = op == Message::Get || op == Message::GetChildren || op == Message::Exists;
  return reads ? ServeRead(link, request) : ServeWrite(link, request);
}

/// The session has come by this link, and is no longer by any other.
void Ensemble::TakeOver(Link& link) {
  owners[link.session] = &link;
  heard[link.session] = world->now;
  for (const auto& other : std::vector(link.server.links)) {
    if (other->session == link.session && other.get() != &link) other->Break(false);
  }
}

bool Ensemble::ServeConnect(Link& link, const Message& request) {
  const Server& server = link.server;
  if (request.zxid > server.tree.zxid) return link.Break(false), true;  // the client has seen more
  const bool deposed = server.mode == Mode::Deposed;
  auto session = request.session;
  if (deposed ? session == 0 : !HasQuorum()) return false;
  if (session != 0) {
    if (!(deposed ? server : *leader).tree.sessions.contains(session)) session = 0;
  } else {
    if (link.waitsFor == 0) {
      link.session = (std::int64_t{number + 1} << 56U) + ++lastSession;
      link.waitsFor =
          Commit({.kind = Transaction::OpenSession, .session = link.session, .timeout = request.timeout});
    }
    if (server.applied < link.waitsFor) return false;
    session = link.session;
  }
  link.session = session;
  if (session != 0) TakeOver(link);
  Reply(link, request, Make({.session = session, .timeout = request.timeout}));
  if (session == 0) link.Break(false);
  return true;
}

bool Ensemble::ServeWrite(Link& link, const Message& request) {
  if (link.server.mode == Mode::Deposed)  // believes that its log is the newest, and waits for its followers
    return request.op == Message::Sync && Reply(link, request, Make({}));
  if (link.waitsFor == 0) {
    if (!HasQuorum()) return false;
    const auto owner = owners.find(link.session);
    const bool moved = owner != owners.end() && owner->second != &link;
    if (moved || !leader->tree.sessions.contains(link.session)) return link.Break(false), true;
    link.prepared = Make({});
    link.prepared->code = Decide(request, link.session, link.prepared->stat);
    link.waitsFor = std::max<std::size_t>(1, log.size());
  }
  if (link.server.applied < link.waitsFor) return false;
  Reply(link, request, std::move(link.prepared));
  if (request.op == Message::Close) link.Break(false);
  return true;
}

/// At the leader.
int Ensemble::Decide(const Message& request, std::int64_t session, Stat& stat) {
  const Tree& tree = leader->tree;
  if (request.op == Message::Close) EndSession(session, Ending::ByClient);
  if (request.op == Message::Close || request.op == Message::Sync) return ZOK;
  int code = ZOK;
  const auto writes = request.op == Message::Multi ? request.parts : std::vector<Message>{request};
  for (const auto& write : writes) {
    const bool asks = request.op == Message::Multi && write.op != Message::Create;
    const bool mayNot = asks && denied.contains(write.path) && tree.Find(write.path);
    if (code == ZOK) code = mayNot ? ZNOAUTH : tree.Check(write);
  }
  // What fails is a transaction too.
  Commit({.session = session, .writes = code == ZOK ? writes : std::vector<Message>()});
  if (const auto* const node = tree.Find(request.path)) stat = node->stat;
  return code;
}

bool Ensemble::ServeRead(Link& link, const Message& request) {
  const auto answer = Make({});
  const Tree::Node* const node = link.server.tree.Find(request.path);
  const bool exists = request.op == Message::Exists;
  answer->code = node == nullptr ? ZNONODE : !exists && denied.contains(request.path) ? ZNOAUTH : ZOK;
  if (answer->code == ZOK) {
    answer->stat = node->stat;
    if (request.op == Message::Get) answer->data = node->data;
    if (request.op == Message::GetChildren)
      answer->children.assign(node->children.begin(), node->children.end());
  }
  if (request.watch && (answer->code == ZOK || (answer->code == ZNONODE && exists)))
    (request.op == Message::GetChildren ? link.childWatches : link.dataWatches).insert(request.path);
  return Reply(link, request, answer);
}

bool Ensemble::ServeWatches(Link& link, const Message& request) {
  std::size_t bytes = 0;
  for (const auto& list : request.lists) {
    for (const auto& path : list) bytes += path.size() + sizeof(std::int32_t);
  }
  if (bytes >= 1024UL * 1024) {  // longer than any packet that a server takes
    world->Violation("more watches are set again than fit into a packet");
    return link.Break(false), true;
  }
  for (int kind = 0; kind < 3; ++kind) {
    for (const auto& path : request.lists[kind]) {
      const Tree::Node* const node = link.server.tree.Find(path);
      int type = 0;
      if (kind == 1) {
        type = node != nullptr ? ZOO_CREATED_EVENT : 0;
      } else if (node == nullptr) {
        type = ZOO_DELETED_EVENT;
      } else if ((kind == 0 ? node->stat.mzxid : node->stat.pzxid) > request.zxid) {
        type = kind == 0 ? ZOO_CHANGED_EVENT : ZOO_CHILD_EVENT;
      }
      if (type == 0) {
        (kind == 2 ? link.childWatches : link.dataWatches).insert(path);
      } else {
        link.Answer(Make({.op = Message::Event, .path = path, .flags = type}));
      }
    }
  }
  return Reply(link, request, Make({}));
}

}  // namespace zr::halden::simulation
