// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "epoch.h"

#include <cerrno>
#include <string_view>
#include <utility>

#include "client_log.h"

namespace zr::halden::details {

namespace {

// More than the library needs to keep a server busy, far below what overflows its wake-up pipe.
constexpr std::size_t kWindow = 500;

enum WatchKind : char { kDataWatch = 'd', kChildWatch = 'c', kExistsWatch = 'e' };

std::size_t WatchKey(WatchKind kind, std::string_view path) {
  return std::hash<std::string_view>()(path) * 31 + static_cast<std::size_t>(kind);
}

void CopyStat(const Stat* from, Reply& reply) {
  if (from != nullptr) reply.stat = *from;
}

}  // namespace

Epoch::Epoch(std::uint64_t number, EpochEvents& events, zr::String root)
    : m_number(number), m_events(events), m_root(std::move(root)) {}

Epoch::~Epoch() {
  Close();
}

int Epoch::Open(const zr::String& addresses, std::chrono::milliseconds timeout, const clientid_t* resume) {
  m_handle = zookeeper_init2(addresses.c_str(), &Epoch::OnSession, static_cast<int>(timeout.count()), resume,
                             this, ZOO_NO_LOG_CLIENTENV, &QueueClientLogLine);
  if (m_handle == nullptr) return errno == 0 ? EINVAL : errno;
  zoo_set_servers_resolution_delay(m_handle, -1);  // the addresses are numeric: nothing to resolve anew
  return 0;
}

void Epoch::Authenticate(const zr::String& scheme, const zr::String& credential) {
  zoo_add_auth(m_handle, scheme.c_str(), credential.data(), static_cast<int>(credential.size()), nullptr,
               nullptr);
}

void Epoch::SetServers(const zr::String& addresses) {
  zoo_set_servers(m_handle, addresses.c_str());
}

void Epoch::Close() {
  if (m_handle == nullptr) return;
  zookeeper_close(std::exchange(m_handle, nullptr));
}

clientid_t Epoch::Session() const {
  const clientid_t* id = zoo_client_id(m_handle);
  return id != nullptr ? *id : clientid_t{};
}

void Epoch::Submit(Request request) {
  if (m_outstanding < kWindow) {
    Send(std::move(request));
  } else {
    m_waiting.push_back(std::move(request));
  }
}

void Epoch::Send(Request request) {
  Slot* slot = nullptr;
  if (m_free.empty()) {
    slot = &m_slots.emplace_back(Slot{this, {}});
  } else {
    slot = m_free.back();
    m_free.pop_back();
  }
  slot->request = std::move(request);
  if (m_outstanding++ == 0) m_lastHeard = std::chrono::steady_clock::now();
  Binding* const binding = slot->request.watch ? Bind(slot->request.watch) : nullptr;
  const auto& path = slot->request.path;
  const int code = Call(slot, slot->request.outsideChroot ? path : m_root + path, binding);
  if (code != ZOK) {
    Reply reply;
    reply.code = code;
    Post(slot, std::move(reply));
  }
}

/// Hands the request to the library. On success a completion will come back for the slot, or the close will.
int Epoch::Call(Slot* slot, const zr::String& path, Binding* binding) {
  const Request& request = slot->request;
  watcher_fn const watcher = binding != nullptr ? &Epoch::OnWatch : nullptr;
  const int length = static_cast<int>(request.data.size());
  switch (request.kind) {
    case Request::Kind::Get:
      return zoo_awget(m_handle, path.c_str(), watcher, binding, &Epoch::OnData, slot);
    case Request::Kind::GetChildren:
      return zoo_awget_children2(m_handle, path.c_str(), watcher, binding, &Epoch::OnChildren, slot);
    case Request::Kind::Exists:
      return zoo_awexists(m_handle, path.c_str(), watcher, binding, &Epoch::OnStat, slot);
    case Request::Kind::Sync:
      return zoo_async(m_handle, path.c_str(), &Epoch::OnString, slot);
    case Request::Kind::Create:
      return zoo_acreate(m_handle, path.c_str(), request.data.data(), length, &ZOO_OPEN_ACL_UNSAFE,
                         request.mode, &Epoch::OnString, slot);
    case Request::Kind::Set:
      return zoo_aset(m_handle, path.c_str(), request.data.data(), length, request.version, &Epoch::OnStat,
                      slot);
    case Request::Kind::Delete:
      return zoo_adelete(m_handle, path.c_str(), request.version, &Epoch::OnVoid, slot);
  }
  return ZBADARGUMENTS;
}

/// One binding for a context: the library then keeps its watches under few distinct pointers, which it
/// compares pair by pair at every session event.
Epoch::Binding* Epoch::Bind(const std::shared_ptr<Connection::WatchContext>& context) {
  Binding*& binding = m_bindingOf[context.get()];
  // An address can be that of an earlier context, now gone, whose binding the library may still know.
  if (binding == nullptr || binding->context.expired()) {
    binding = &m_bindings.emplace_back(Binding{this, context});
  }
  return binding;
}

void Epoch::Complete(void* posted, Reply& reply) {
  auto* const slot = static_cast<Slot*>(posted);
  const Request request = std::exchange(slot->request, Request{});
  m_free.push_back(slot);
  --m_outstanding;
  m_lastHeard = std::chrono::steady_clock::now();
  if (request.watch) CountWatch(request, reply.code);
  if (!m_waiting.empty()) {
    Request next = std::move(m_waiting.front());
    m_waiting.pop_front();
    Send(std::move(next));
  }
  if (request.reply) request.reply(reply);
}

void Epoch::Dispatch(void* posted, int type, int state, const std::string& path) {
  UncountWatch(type, path);
  const auto context = static_cast<Binding*>(posted)->context.lock();
  if (context) context->Invoke(type, state, path.substr(m_root.size()));
}

void Epoch::CountWatch(const Request& request, int code) {
  const bool absentWatched = request.kind == Request::Kind::Exists && code == ZNONODE;
  if (code != ZOK && !absentWatched) return;
  const auto kind = request.kind == Request::Kind::GetChildren ? kChildWatch
                    : absentWatched                            ? kExistsWatch
                                                               : kDataWatch;
  const zr::String path = m_root + request.path;
  const std::size_t bytes = path.size() + sizeof(std::int32_t);
  if (m_watchLength.emplace(WatchKey(kind, path), bytes).second) m_watchBytes += bytes;
}

void Epoch::UncountWatch(int type, const std::string& path) {
  const auto uncount = [&](WatchKind kind) {
    const auto entry = m_watchLength.find(WatchKey(kind, path));
    if (entry == m_watchLength.end()) return;
    m_watchBytes -= entry->second;
    m_watchLength.erase(entry);
  };
  if (type == ZOO_CHILD_EVENT || type == ZOO_DELETED_EVENT) uncount(kChildWatch);
  if (type == ZOO_CHILD_EVENT) return;
  uncount(kDataWatch);
  uncount(kExistsWatch);
}

void Epoch::OnSession(zhandle_t* /*handle*/, int type, int state, const char* /*path*/,
                      void* epoch) noexcept {
  if (type != ZOO_SESSION_EVENT) return;
  const auto* const self = static_cast<const Epoch*>(epoch);
  self->m_events.PostSession(self->m_number, state);
}

void Epoch::OnWatch(zhandle_t* /*handle*/, int type, int state, const char* path, void* binding) noexcept {
  if (type == ZOO_SESSION_EVENT) return;  // every watch gets these too; the handle's own watcher posts them
  const Epoch* const self = static_cast<const Binding*>(binding)->epoch;
  self->m_events.PostWatch(self->m_number, binding, type, state, path);
}

void Epoch::Post(const void* slot, Reply reply) {
  const Epoch* const self = static_cast<const Slot*>(slot)->epoch;
  // The library takes contexts back as const; the slot is ours.
  self->m_events.PostReply(self->m_number, const_cast<void*>(slot), std::move(reply));
}

void Epoch::OnData(int code, const char* value, int length, const Stat* stat, const void* slot) noexcept {
  Reply reply;
  reply.code = code;
  if (value != nullptr && length > 0) reply.value.assign(value, static_cast<std::size_t>(length));
  CopyStat(stat, reply);
  Post(slot, std::move(reply));
}

void Epoch::OnChildren(int code, const String_vector* names, const Stat* stat, const void* slot) noexcept {
  Reply reply;
  reply.code = code;
  if (names != nullptr) reply.children.assign(names->data, names->data + names->count);
  CopyStat(stat, reply);
  Post(slot, std::move(reply));
}

void Epoch::OnStat(int code, const Stat* stat, const void* slot) noexcept {
  Reply reply;
  reply.code = code;
  CopyStat(stat, reply);
  Post(slot, std::move(reply));
}

void Epoch::OnString(int code, const char* /*value*/, const void* slot) noexcept {
  OnVoid(code, slot);
}

void Epoch::OnVoid(int code, const void* slot) noexcept {
  Reply reply;
  reply.code = code;
  Post(slot, std::move(reply));
}

}  // namespace zr::halden::details
