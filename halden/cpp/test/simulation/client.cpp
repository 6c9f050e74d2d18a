// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// The part of the client library that we call, over the simulated network: one packet a call, callbacks from inside its
// calls in the order of the wire, and its ways with lost connections, as measured of the real one. And what the library
// has between itself and the client library, the sockets and the resolver.
#include <poll.h>
#include <zookeeper/proto.h>

#include <cerrno>

#include "client/client_adaptor.h"
#include "client/name_resolution.h"
#include "simulation/ensemble.h"

using namespace zr::halden::simulation;  // NOLINT(google-build-using-namespace)

namespace {

using Watch = std::pair<watcher_fn, void*>;
using Done = std::function<void(int code, const Message& answer)>;

struct Asked {  // and not answered yet
  MessagePtr request;
  Watch watch;
  Done done;
};

void AddOnce(std::vector<Watch>& watches, const Watch& watch) {
  if (std::find(watches.begin(), watches.end(), watch) == watches.end()) watches.push_back(watch);
}

const char* Tail(const std::string& path) {
  return path.c_str() + (path.size() > 48 ? path.size() - 48 : 0);
}

std::string Bytes(const char* value, int length) {
  return {value, static_cast<std::size_t>(std::max(length, 0))};
}

}  // namespace

struct _zhandle {
  watcher_fn watcher;
  void* context;
  int timeout;
  clientid_t id{};
  int state = 999;
  std::vector<std::string> addresses{};
  std::size_t nextAddress = 0;
  bool delay = false;
  std::shared_ptr<Link> link{};
  Time lastHeard{}, lastSent{};
  std::optional<Time> begun{};  // its session, and no list was asked for yet
  std::int64_t lastZxid = 0;
  int lastXid = 1000;
  std::deque<MessagePtr> toSend{};
  std::deque<Asked> asked{};
  std::map<std::string, std::vector<Watch>, PathOrder> watches[3]{};  // on data, on absence, on children

  unsigned long long Number() const { return static_cast<unsigned long long>(id.client_id); }
  void SetAddresses(const std::string& text) {
    addresses.clear();
    for (std::size_t begin = 0; begin <= text.size();) {
      const auto end = std::min(text.find(',', begin), text.size());
      addresses.push_back(text.substr(begin, end - begin));
      begin = end + 1;
    }
    for (std::size_t i = addresses.size(); i > 1; --i)
      std::swap(addresses[i - 1], addresses[world->Below(i)]);
    nextAddress = 0;
  }

  void TellSession(int newState) { watcher(this, -1, newState, "", context); }
  /// The state changes last: who is told of the loss finds the handle connected.
  int Lose(int code) {
    if (link) std::exchange(link, nullptr)->Leave();
    const bool over = is_unrecoverable(this) != 0;
    if (over || state == ZOO_CONNECTED_STATE) TellSession(over ? state : ZOO_CONNECTING_STATE);
    toSend.clear();
    if (!over) state = 0;
    for (const auto& one : std::exchange(asked, {})) one.done(code, {});
    delay = nextAddress >= addresses.size();
    nextAddress = delay ? 1 : nextAddress + 1;
    return code;
  }

  int Ask(Message message, Watch watch, Done done) {
    if (is_unrecoverable(this) != 0) return ZINVALIDSTATE;
    message.xid = ++lastXid;
    ++world->asked;
    message.watch = watch.first != nullptr;
    if (begun && message.op == Message::GetChildren)
      world->pauses.push_back(world->now - *std::exchange(begun, std::nullopt));
    world->Note("handle %llx asks %d %d %s", Number(), message.xid, message.op, Tail(message.path));
    toSend.push_back(Make(std::move(message)));
    asked.push_back({toSend.back(), watch, std::move(done)});
    return ZOK;
  }

  void Establish(const Message& answer) {
    if (id.client_id != 0 && id.client_id != answer.session) {
      state = ZOO_EXPIRED_SESSION_STATE;
      Lose(ZSESSIONEXPIRED);
      return;
    }
    if (id.client_id == 0) begun = world->now;
    id.client_id = answer.session;
    link->ensemble.taken.insert(answer.session);
    timeout = answer.timeout;
    state = ZOO_CONNECTED_STATE;
    const auto again = Make({.op = Message::SetWatches, .xid = -8, .zxid = lastZxid});
    bool any = false;
    for (int kind = 0; kind < 3; ++kind) {
      for (const auto& [path, contexts] : watches[kind]) again->lists[kind].push_back(path);
      any = any || !watches[kind].empty();
    }
    if (any) toSend.push_front(again);
    TellSession(ZOO_CONNECTED_STATE);
  }

  void TakeAnswer(const Message& answer) {
    const Asked one = std::move(asked.front());
    asked.pop_front();
    const Message& request = *one.request;
    if (request.xid != answer.xid) world->Violation("the simulated library has lost count of its requests");
    if (answer.zxid > 0) lastZxid = answer.zxid;
    if (world->Strikes(Fault::LostCompletion, 200)) {
      world->Note("answer %d is lost in the library", answer.xid);
      link->ensemble.lastTrouble = world->now;
      return;
    }
    const bool absent = request.op == Message::Exists && answer.code == ZNONODE;
    if (request.watch && (answer.code == ZOK || absent)) {
      auto& those = watches[absent ? 1 : request.op == Message::GetChildren ? 2 : 0][request.path];
      AddOnce(those, one.watch);
      if (those.size() > 1)
        world->Violation("two watches for one path");  // who is gone would leave one behind
    }
    world->Note("handle %llx is answered %d code %d %s", Number(), answer.xid, answer.code,
                Tail(request.path));
    one.done(answer.code, answer);
  }

  void TakeEvent(const Message& event) {
    const int type = event.flags;
    world->Note("handle %llx hears event %d %s", Number(), type, Tail(event.path));
    std::vector<Watch> contexts;
    for (int kind = 0; kind < 3; ++kind) {
      if (type != ZOO_DELETED_EVENT && (type == ZOO_CHILD_EVENT) != (kind == 2)) continue;
      if (const auto found = watches[kind].extract(event.path))
        for (const auto& one : found.mapped()) AddOnce(contexts, one);
    }
    for (const auto& [function, one] : contexts) function(this, type, state, event.path.c_str(), one);
  }

  int Read() {
    const auto message = link ? link->Receive() : nullptr;
    if (!message) return link && link->Ended() ? Lose(ZCONNECTIONLOSS) : ZNOTHING;
    lastHeard = world->now;
    if (message->op == Message::Connect) {
      Establish(*message);
    } else if (message->op == Message::Event) {
      TakeEvent(*message);
    } else if (message->op != Message::Ping && message->op != Message::SetWatches) {
      TakeAnswer(*message);
    }
    return is_unrecoverable(this) != 0 ? ZSESSIONEXPIRED : ZOK;
  }

  int AskForSession() {
    if (!link->stands) return Lose(ZCONNECTIONLOSS);
    link->Send(Make({.op = Message::Connect, .zxid = lastZxid, .session = id.client_id, .timeout = timeout}));
    state = ZOO_ASSOCIATING_STATE;
    world->Note("handle %llx asks server %s for its session, zxid %llx", Number(), link->server.name.c_str(),
                static_cast<unsigned long long>(lastZxid));
    return ZOK;
  }
};

namespace {

timeval After(Duration wait) {
  const auto left = std::max<std::int64_t>(0, wait / 1us);
  return {left / 1'000'000, left % 1'000'000};
}

Done AsStat(stat_completion_t done, const void* data) {
  return [=](int code, const Message& answer) { done(code, code == ZOK ? &answer.stat : nullptr, data); };
}

Done AsString(string_completion_t done, const std::string& path, const void* data) {
  return [=](int code, const Message&) { done(code, code == ZOK ? path.c_str() : nullptr, data); };
}

Done AsVoid(void_completion_t done, const void* data) {
  return [=](int code, const Message&) { done(code, data); };
}

Message PartOf(const zoo_op_t& op) {
  if (op.type == ZOO_CHECK_OP)
    return {.op = Message::Check, .path = op.check_op.path, .version = op.check_op.version};
  if (op.type == ZOO_SETDATA_OP)
    return {.op = Message::Set, .path = op.set_op.path, .data = Bytes(op.set_op.data, op.set_op.datalen)};
  const auto& [path, data, length, buffer, size, access, flags, ttl] = op.create_op;
  return {.op = Message::Create, .path = path, .data = Bytes(data, length), .flags = flags};
}

}  // namespace

extern "C" {

const int ZOO_PERSISTENT = 0, ZOO_EPHEMERAL = 1, ZOO_CONTAINER = 4;
const int ZOOKEEPER_WRITE = 1, ZOOKEEPER_READ = 2;
const int ZOO_CONNECTING_STATE = 1, ZOO_ASSOCIATING_STATE = 2, ZOO_CONNECTED_STATE = 3;
const int ZOO_EXPIRED_SESSION_STATE = ZSESSIONEXPIRED, ZOO_AUTH_FAILED_STATE = ZAUTHFAILED;
const int ZOO_NOTCONNECTED_STATE = 999, ZOO_SESSION_EVENT = -1;
const int ZOO_CREATED_EVENT = 1, ZOO_DELETED_EVENT = 2, ZOO_CHANGED_EVENT = 3, ZOO_CHILD_EVENT = 4;
ACL_vector ZOO_OPEN_ACL_UNSAFE = {0, nullptr};

zhandle_t* zookeeper_init2(const char* host, watcher_fn fn, int timeout, const clientid_t* id, void* context,
                           int, log_callback_fn) {
  errno = EINVAL;
  if (*host == '\0') return nullptr;
  auto* const zh = new zhandle_t{.watcher = fn, .context = context, .timeout = timeout};
  if (id != nullptr) zh->id = *id;
  zh->SetAddresses(host);
  ++world->handles;
  return zh;
}

int zookeeper_close(zhandle_t* zh) {
  if (zh->link) std::exchange(zh->link, nullptr)->Leave();
  for (const auto& one : std::exchange(zh->asked, {})) one.done(ZCLOSING, {});
  --world->handles;
  delete zh;
  return ZOK;
}

int zookeeper_interest(zhandle_t* zh, int* fd, int* interest, timeval* tv) {
  if (is_unrecoverable(zh) != 0) return ZINVALIDSTATE;
  const auto timeout = std::chrono::milliseconds(zh->timeout);
  *fd = -1;
  *interest = 0;
  *tv = {};
  if (!zh->link) {
    if (std::exchange(zh->delay, false)) return *tv = After(timeout / 60), ZOK;
    if (zh->nextAddress >= zh->addresses.size()) zh->nextAddress = 0;
    zh->link = Link::Open(zh->addresses[zh->nextAddress++]);
    if (!zh->link) return zh->Lose(ZCONNECTIONLOSS);
    zh->state = ZOO_CONNECTING_STATE;
    zh->lastHeard = zh->lastSent = world->now;
  }
  const auto toHear = timeout * 2 / 3 - (world->now - zh->lastHeard);
  if (toHear <= 0ms) return zh->Lose(ZOPERATIONTIMEOUT);
  const bool connected = zh->state == ZOO_CONNECTED_STATE;
  Duration toSend = timeout / 3;
  if (connected) toSend -= world->now - zh->lastSent;
  if (toSend <= 0ms) {
    if (zh->asked.empty()) zh->toSend.push_back(Make({}));
    toSend = timeout / 3;
  }
  *fd = zh->link->descriptor;
  const bool writes = zh->state == ZOO_CONNECTING_STATE || (connected && !zh->toSend.empty());
  *interest = ZOOKEEPER_READ | (writes ? ZOOKEEPER_WRITE : 0);
  *tv = After(std::min<Duration>(toHear, toSend) + 1us);
  return ZOK;
}

int zookeeper_process(zhandle_t* zh, int events) {
  if (is_unrecoverable(zh) != 0 || !zh->link) return ZINVALIDSTATE;
  const bool writes = (events & ZOOKEEPER_WRITE) != 0;
  if (writes && zh->state == ZOO_CONNECTING_STATE) return zh->AskForSession();
  if (writes && zh->state == ZOO_CONNECTED_STATE && !zh->toSend.empty()) {
    for (const auto& message : std::exchange(zh->toSend, {})) zh->link->Send(message);
    zh->lastSent = world->now;
  }
  return (events & ZOOKEEPER_READ) != 0 ? zh->Read() : ZOK;
}

int zoo_awget(zhandle_t* zh, const char* path, watcher_fn watcher, void* context, data_completion_t done,
              const void* data) {
  return zh->Ask({.op = Message::Get, .path = path}, {watcher, context},
                 [=](int code, const Message& answer) {
                   if (code != ZOK) return done(code, nullptr, -1, nullptr, data);
                   done(code, answer.data.data(), static_cast<int>(answer.data.size()), &answer.stat, data);
                 });
}

int zoo_awget_children2(zhandle_t* zh, const char* path, watcher_fn watcher, void* context,
                        strings_stat_completion_t done, const void* data) {
  const auto tell = [=](int code, const Message& answer) {
    if (code != ZOK) return done(code, nullptr, nullptr, data);
    std::vector<char*> names;
    for (const auto& name : answer.children) names.push_back(const_cast<char*>(name.c_str()));
    const String_vector strings{static_cast<int>(names.size()), names.data()};
    done(code, &strings, &answer.stat, data);
  };
  return zh->Ask({.op = Message::GetChildren, .path = path}, {watcher, context}, tell);
}

int zoo_awexists(zhandle_t* zh, const char* path, watcher_fn watcher, void* context, stat_completion_t done,
                 const void* data) {
  return zh->Ask({.op = Message::Exists, .path = path}, {watcher, context}, AsStat(done, data));
}

int zoo_async(zhandle_t* zh, const char* path, string_completion_t done, const void* data) {
  return zh->Ask({.op = Message::Sync, .path = path}, {}, AsString(done, path, data));
}

int zoo_acreate(zhandle_t* zh, const char* path, const char* value, int length, const ACL_vector*, int mode,
                string_completion_t done, const void* data) {
  return zh->Ask({.op = Message::Create, .path = path, .data = Bytes(value, length), .flags = mode}, {},
                 AsString(done, path, data));
}

int zoo_aset(zhandle_t* zh, const char* path, const char* value, int length, int version,
             stat_completion_t done, const void* data) {
  return zh->Ask({.op = Message::Set, .path = path, .data = Bytes(value, length), .version = version}, {},
                 AsStat(done, data));
}

int zoo_adelete(zhandle_t* zh, const char* path, int version, void_completion_t done, const void* data) {
  return zh->Ask({.op = Message::Delete, .path = path, .version = version}, {}, AsVoid(done, data));
}

void zoo_check_op_init(zoo_op_t* op, const char* path, int version) {
  *op = {.type = ZOO_CHECK_OP, .check_op = {path, version}};
}

void zoo_create_op_init(zoo_op_t* op, const char* path, const char* value, int length, const ACL_vector*,
                        int mode, char*, int) {
  *op = {.type = ZOO_CREATE_OP, .create_op = {path, value, length, nullptr, 0, nullptr, mode, 0}};
}

void zoo_set_op_init(zoo_op_t* op, const char* path, const char* value, int length, int version, Stat*) {
  *op = {.type = ZOO_SETDATA_OP, .set_op = {path, value, length, version, nullptr}};
}

int zoo_amulti(zhandle_t* zh, int count, const zoo_op_t* ops, zoo_op_result_t* results,
               void_completion_t done, const void* data) {
  Message message{.op = Message::Multi};
  for (int i = 0; i < count; ++i) message.parts.push_back(PartOf(ops[i]));
  return zh->Ask(std::move(message), {}, [=](int code, const Message&) {
    for (int i = 0; i < count; ++i) results[i].err = code;
    done(code, data);
  });
}

// clang-format off
int zoo_set_servers(zhandle_t* zh, const char* hosts) { return zh->SetAddresses(hosts), ZOK; }
int zoo_add_auth(zhandle_t*, const char*, const char*, int, void_completion_t, const void*) { return ZOK; }
int zoo_set_servers_resolution_delay(zhandle_t*, int) { return ZOK; }
int zoo_state(zhandle_t* zh) { return zh == nullptr ? 0 : zh->state; }
const clientid_t* zoo_client_id(zhandle_t* zh) { return &zh->id; }
int zoo_aget_acl(zhandle_t*, const char*, acl_completion_t, const void*) { return ZUNIMPLEMENTED; }
int zoo_recv_timeout(zhandle_t* zh) { return zh->timeout; }
int is_unrecoverable(zhandle_t* zh) { return zh->state < 0 ? ZINVALIDSTATE : ZOK; }
const char* zerror(int) { return "simulated"; }
// clang-format on

}  // extern "C"

namespace zr::halden::details {

void CloseAndKeepSession(zhandle_t* handle) {
  zookeeper_close(handle);
}

std::unique_ptr<Farewell> CloseAndEndSession(zhandle_t* handle, int /*socket*/) {
  const auto link = std::exchange(handle->link, nullptr);
  const int xid = ++handle->lastXid;
  for (const auto& message : handle->toSend) link->Send(message);
  zookeeper_close(handle);
  if (world->Strikes(Fault::Cut, 4)) {
    world->Note("the connection breaks at its close");
    link->ensemble.lastTrouble = world->now;
    link->Break(true);
    if (world->OneIn(2)) return link->Leave(), nullptr;
  }
  link->Send(Make({.op = Message::Close, .xid = xid}));
  return std::make_unique<Farewell>(FileDescriptor(link->descriptor), xid);
}

void TakeForBroken(zhandle_t* handle, int /*socket*/) {
  handle->link->GiveUp();
}

Farewell::Result Farewell::Read() {
  const auto link = Link::Find(m_socket.Get());
  if (!link) return Result::Unknown;
  while (const auto message = link->Receive()) {
    if (message->op == Message::Close && message->xid == m_xid) return link->Leave(), Result::Ended;
  }
  if (!link->Ended()) return Result::Waiting;
  return link->Leave(), Result::Unknown;
}

}  // namespace zr::halden::details
