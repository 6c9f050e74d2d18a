// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "client/epoch.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <utility>

#include "client/access_vector.h"
#include "client/client_adaptor.h"

namespace zr::halden::details {

namespace {

// Then the connection's tasks have their turn.
constexpr int kPacketsAtOnce = 256;
// A library that fails at once and does not pause by itself must not take a whole processor.
constexpr std::chrono::milliseconds kRestAfterFailure{1};

/// The library passes over every second of an even number of addresses once it has tried all, and then makes no pause
/// either.
zr::String MadeOdd(const zr::String& addresses) {
  const auto count = 1 + std::count(addresses.begin(), addresses.end(), ',');
  return count % 2 != 0 ? addresses : addresses + "," + addresses.substr(0, addresses.find(','));
}

void Cork(int socket, int on) {
  setsockopt(socket, IPPROTO_TCP, TCP_CORK, &on, sizeof on);
}

/// About, of an answer on the wire; and, for the time that each takes servers and us, some 300 more.
std::size_t SizeOf(const Reply& reply) {
  std::size_t bytes = 90 + 300 + reply.value.size();
  for (const auto& child : reply.children) bytes += 4 + child.size();
  return bytes;
}

SendWindow::Kind AnswerOf(const Request& request) {
  switch (request.kind) {
    case Request::Kind::GetChildren:
      return request.alike ? SendWindow::Kind::List : SendWindow::Kind::Other;
    case Request::Kind::Get:
      return request.alike ? SendWindow::Kind::Data : SendWindow::Kind::Other;
    case Request::Kind::GetAccess:
    case Request::Kind::Exists:
      return SendWindow::Kind::Other;
    default:
      return SendWindow::Kind::Write;
  }
}

}  // namespace

Epoch::Epoch(PostFunction post, zr::String root, SessionFunction onSession, EventFunction onEvent,
             std::shared_ptr<SendWindow> window)
    : m_post(std::move(post)),
      m_root(std::move(root)),
      m_onSession(std::move(onSession)),
      m_onEvent(std::move(onEvent)),
      m_window(std::move(window)) {}

Epoch::~Epoch() {
  Abandon();
}

int Epoch::Open(const zr::String& addresses, std::chrono::milliseconds timeout, const clientid_t* resume) {
  m_handle = zookeeper_init2(MadeOdd(addresses).c_str(), &Epoch::OnSession, static_cast<int>(timeout.count()),
                             resume, this, ZOO_NO_LOG_CLIENTENV, nullptr);
  if (m_handle == nullptr) return errno == 0 ? EINVAL : errno;
  m_addresses = addresses;
  zoo_set_servers_resolution_delay(m_handle, -1);  // the addresses are numeric: nothing to resolve anew
  return 0;
}

void Epoch::Authenticate(const zr::String& scheme, const zr::String& credential) {
  zoo_add_auth(m_handle, scheme.c_str(), credential.data(), static_cast<int>(credential.size()), nullptr,
               nullptr);
}

std::unique_ptr<Farewell> Epoch::Close() {
  if (m_life != Life::Open || m_inLibrary || !ConnectedNow()) {
    Abandon();
    return nullptr;
  }
  m_life = Life::Closed;  // nothing is told any more, whatever the following finds
  zhandle_t* const handle = std::exchange(m_handle, nullptr);
  Cork(m_way.socket, 1);
  zookeeper_process(handle, ZOOKEEPER_WRITE);  // what is asked for first must leave first
  if (zoo_state(handle) != ZOO_CONNECTED_STATE) {
    CloseAndKeepSession(handle);
    return nullptr;
  }
  Cork(m_way.socket, 0);
  return CloseAndEndSession(handle, m_way.socket);
}

void Epoch::Abandon() {
  if (m_handle == nullptr) return;
  if (m_inLibrary) {
    m_life = Life::Closing;
    return;
  }
  m_life = Life::Closed;
  CloseAndKeepSession(std::exchange(m_handle, nullptr));
}

/// Calls the library with a function that may tell something, and closes the handle if it is let go of then.
template <typename Function>
int Epoch::InLibrary(const Function& function) {
  if (m_life != Life::Open || m_handle == nullptr) return ZINVALIDSTATE;
  m_inLibrary = true;
  const int code = function();
  m_inLibrary = false;
  if (code != ZOK && code != ZNOTHING) m_way.tried.reset();  // it lets go of the socket with every error
  if (m_life == Life::Closing) {
    Abandon();
    return ZINVALIDSTATE;
  }
  return code;
}

int Epoch::Process(int events) {
  return InLibrary([&] { return zookeeper_process(m_handle, events); });
}

/// Sends what is queued, in as few packets as hold it: the library writes each request in two pieces.
void Epoch::Flush() {
  const int socket = m_way.socket;
  Cork(socket, 1);
  Process(ZOOKEEPER_WRITE);
  if (ConnectedNow()) Cork(socket, 0);  // else it is closed
}

void Epoch::ReadAll() {
  for (int i = 0; i < kPacketsAtOnce; ++i) {
    if (Process(ZOOKEEPER_READ) != ZOK) return;  // one packet, if there is one
  }
}

void Epoch::TakeSocket(int socket) {
  m_way.socket = socket;
  if (ConnectedNow()) return;
  fcntl(socket, F_SETFD, FD_CLOEXEC);  // it may be a new one
  if (!m_way.tried) m_way.tried = Clock::now();
}

/// The library opens connections, notices silence and pings in here.
Clock::time_point Epoch::Await(std::vector<pollfd>& sockets) {
  const auto now = Clock::now();
  if (now < m_way.resume) return m_way.resume;
  // Whoever was held up for long reads first: else what has come meanwhile passes for silence.
  if (ConnectedNow() && now - m_way.asked > Timeout() / 10) ReadAll();
  m_way.asked = now;
  constexpr std::size_t usual = 1024;
  if (m_slots.size() > usual && m_free.size() == m_slots.size()) {  // after a load none is in use
    m_free = {};
    m_slots = {};
  }
  int interest = 0;
  timeval wait{};
  for (bool flushed = false;;) {
    int socket = -1;
    const int code = InLibrary([&] { return zookeeper_interest(m_handle, &socket, &interest, &wait); });
    if (m_life != Life::Open || is_unrecoverable(m_handle) != 0) return Clock::time_point::max();
    if (code != ZOK) return m_way.resume = Clock::now() + kRestAfterFailure;
    const auto end =
        Clock::now() + std::chrono::seconds(wait.tv_sec) + std::chrono::microseconds(wait.tv_usec);
    if (socket < 0) {  // a pause, which is for tries that fail, and not before the first
      if (std::exchange(m_way.lost, false)) continue;
      return m_way.resume = end;
    }
    TakeSocket(socket);
    const bool unsent = (interest & ZOOKEEPER_WRITE) != 0 && ConnectedNow();
    if (unsent && !m_way.full && !std::exchange(flushed, true)) {
      Flush();
      continue;
    }
    m_way.full = unsent;
    const int output = (interest & ZOOKEEPER_WRITE) != 0 ? POLLOUT : 0;
    sockets.push_back({socket, static_cast<short>(POLLIN | output), 0});
    return end;
  }
}

void Epoch::Ready(const pollfd& socket) {
  if (m_life != Life::Open || socket.fd != m_way.socket) return;
  const bool broken = (socket.revents & ~(POLLIN | POLLOUT)) != 0;
  if (broken || (socket.revents & POLLOUT) != 0) {
    m_way.full = false;
    if (ConnectedNow()) {
      Flush();
    } else {
      m_way.knocked = Clock::now();
      Process(ZOOKEEPER_WRITE);  // the connection stands, or has failed
    }
  }
  if (broken || (socket.revents & POLLIN) != 0) ReadAll();
}

void Epoch::GiveUpServer() {
  ReadAll();  // if this thread was held up the answer may be there
  if (m_life == Life::Open && m_way.tried && !ConnectedNow()) TakeForBroken(m_handle, m_way.socket);
}

clientid_t Epoch::Session() const {
  return m_handle == nullptr ? clientid_t{} : *zoo_client_id(m_handle);
}

void Epoch::Submit(Request request) {
  if (m_life != Life::Open) return;
  if (m_free.empty()) m_free.push_back(&m_slots.emplace_back(Slot{this, {}, {}, false, {}}));
  Slot* const slot = m_free.back();
  m_free.pop_back();
  slot->request = std::move(request);
  const auto now = Clock::now();
  if (m_sent.empty()) m_lastHeard = now;
  const auto& path = slot->request.path;
  const int code = Call(slot, slot->request.outsideChroot ? path : m_root + path);
  if (code == ZOK) {
    m_way.spoke = now;
    slot->sent = m_window->OnSent(AnswerOf(slot->request), now);
    return m_sent.push_back(slot);
  }
  m_post(Clock::duration::zero(), [weak = weak_from_this(), slot, code] {
    const auto self = weak.lock();
    if (!self || self->m_life != Life::Open) return;
    Reply reply;
    reply.code = code;
    self->Complete(*slot, reply);
  });
}

/// Hands the request to the library. On success a completion will come back for the slot.
int Epoch::Call(Slot* slot, const zr::String& path) {
  const Request& request = slot->request;
  watcher_fn const watcher = request.watch ? &Epoch::OnWatch : nullptr;
  const int length = static_cast<int>(request.data.size());
  const AccessVector access(request.access.get());
  switch (request.kind) {
    case Request::Kind::Get:
      return zoo_awget(m_handle, path.c_str(), watcher, this, &Epoch::OnData, slot);
    case Request::Kind::GetChildren:
      return zoo_awget_children2(m_handle, path.c_str(), watcher, this, &Epoch::OnChildren, slot);
    case Request::Kind::GetAccess:
      return zoo_aget_acl(m_handle, path.c_str(), &Epoch::OnAccess, slot);
    case Request::Kind::Exists:
      return zoo_awexists(m_handle, path.c_str(), watcher, this, &Epoch::OnStat, slot);
    case Request::Kind::Sync:
      return zoo_async(m_handle, path.c_str(), &Epoch::OnString, slot);
    case Request::Kind::Create:
      return zoo_acreate(m_handle, path.c_str(), request.data.data(), length, access.Get(), request.mode,
                         &Epoch::OnString, slot);
    case Request::Kind::Set:
      return zoo_aset(m_handle, path.c_str(), request.data.data(), length, request.version, &Epoch::OnStat,
                      slot);
    case Request::Kind::Delete:
      return zoo_adelete(m_handle, path.c_str(), request.version, &Epoch::OnVoid, slot);
    case Request::Kind::CreateAndTell: {
      const zr::String parent = path.substr(0, path.rfind('/'));
      const auto& told = request.parentData;
      std::array<zoo_op_t, 2> both{};
      zoo_create_op_init(both.data(), path.c_str(), request.data.data(), length, access.Get(), request.mode,
                         nullptr, 0);
      zoo_set_op_init(&both[1], parent.c_str(), told.data(), static_cast<int>(told.size()), -1, nullptr);
      return zoo_amulti(m_handle, static_cast<int>(both.size()), both.data(), slot->results.data(),
                        &Epoch::OnVoid, slot);
    }
    case Request::Kind::Barrier: {
      zoo_op_t check;
      zoo_check_op_init(&check, path.c_str(), request.version);
      return zoo_amulti(m_handle, 1, &check, slot->results.data(), &Epoch::OnVoid, slot);
    }
  }
  return ZBADARGUMENTS;
}

/// Answers come in order: what was sent before this one and has none has lost it, and would be waited for for ever.
void Epoch::MissLost(const Slot& answered) {
  while (!m_sent.empty()) {
    Slot* const first = m_sent.front();
    m_sent.pop_front();
    if (first == &answered) return;
    first->lost = true;
    m_window->OnLost(first->sent);
    Reply reply;
    reply.code = ZOPERATIONTIMEOUT;
    TaskThread::RunGuarded([&] { Complete(*first, reply); });
    if (m_life != Life::Open) return;
  }
}

/// Whatever is thrown on the way costs that step only, and the slot is free.
void Epoch::Complete(Slot& slot, Reply& reply) {
  const Request request = std::exchange(slot.request, Request{});
  if (!slot.lost) m_free.push_back(&slot);
  m_lastHeard = Clock::now();
  TaskThread::RunGuarded([&] {
    if (request.watch) m_watches.Count(request, m_root + request.path, reply.code);
  });
  if (request.reply) request.reply(reply);
}

void Epoch::Dispatch(int type, int state, const std::string& path) {
  m_heardAhead = true;
  m_watches.Uncount(type, path);
  m_onEvent(type, state, path.substr(m_root.size()));
}

void Epoch::OnSession(zhandle_t* /*handle*/, int type, int state, const char* /*path*/,
                      void* epoch) noexcept {
  auto& self = *static_cast<Epoch*>(epoch);
  if (type != ZOO_SESSION_EVENT || self.m_life != Life::Open) return;
  // A server that drops everybody at once must not be asked at once.
  constexpr std::chrono::seconds longEnough{1};
  const auto now = Clock::now();
  self.m_way.lost = state == ZOO_CONNECTING_STATE && now - self.m_way.since > longEnough;
  // Nothing could be answered before.
  if (state == ZOO_CONNECTED_STATE) {
    self.m_way.since = self.m_lastHeard = now;
    self.m_window->OnConnected(now - self.m_way.knocked, now);
  }
  TaskThread::RunGuarded([&] { self.m_onSession(self, state); });
}

/// All watches have the epoch itself as their context, and are told of every session event too.
void Epoch::OnWatch(zhandle_t* /*handle*/, int type, int state, const char* path, void* epoch) noexcept {
  auto& self = *static_cast<Epoch*>(epoch);
  if (type == ZOO_SESSION_EVENT || self.m_life != Life::Open) return;
  TaskThread::RunGuarded([&] { self.Dispatch(type, state, path); });
}

/// `fill` adds to the answer what only some have.
template <typename Fill>
void Epoch::Answer(const void* context, int code, const Stat* stat, const Fill& fill) noexcept {
  // The library takes contexts back as const; the slot is ours.
  auto& slot = *static_cast<Slot*>(const_cast<void*>(context));
  Epoch& self = *slot.epoch;
  if (self.m_life != Life::Open) return;
  Reply reply;
  reply.code = code;
  if (stat != nullptr) reply.stat = *stat;
  try {
    fill(reply);
  } catch (const std::exception&) {  // no memory for what was read
    reply.code = ZSYSTEMERROR;
  }
  if (slot.lost) return;
  self.MissLost(slot);
  if (self.m_life != Life::Open) return;
  if (code == ZCONNECTIONLOSS || code == ZOPERATIONTIMEOUT || code == ZSESSIONEXPIRED) {
    self.m_window->OnLost(slot.sent);
  } else {
    self.m_window->OnAnswered(slot.sent, SizeOf(reply), Clock::now());
    self.m_heardAhead = false;
  }
  TaskThread::RunGuarded([&] { self.Complete(slot, reply); });
}

void Epoch::OnData(int code, const char* value, int length, const Stat* stat, const void* slot) noexcept {
  Answer(slot, code, stat, [&](Reply& reply) {
    if (value != nullptr && length > 0) reply.value.assign(value, static_cast<std::size_t>(length));
  });
}

void Epoch::OnChildren(int code, const String_vector* names, const Stat* stat, const void* slot) noexcept {
  Answer(slot, code, stat, [&](Reply& reply) {
    if (names != nullptr) reply.children.assign(names->data, names->data + names->count);
  });
}

void Epoch::OnAccess(int code, ACL_vector* access, Stat* stat, const void* slot) noexcept {
  Answer(slot, code, stat, [&](Reply& reply) {
    if (access != nullptr) reply.access = ToAccessList(*access);
  });
}

void Epoch::OnStat(int code, const Stat* stat, const void* slot) noexcept {
  Answer(slot, code, stat, [](Reply&) {});
}

void Epoch::OnString(int code, const char* /*value*/, const void* slot) noexcept {
  OnVoid(code, slot);
}

void Epoch::OnVoid(int code, const void* slot) noexcept {
  Answer(slot, code, nullptr, [](Reply&) {});
}

}  // namespace zr::halden::details
