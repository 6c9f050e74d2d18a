// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "raw_client.h"

#include <stdexcept>
#include <utility>

#include "halden/service_id.h"
#include "zr/messaging/halden/service.pb.h"

namespace zr::halden::bench {

namespace {

constexpr std::size_t kWindow = 500;
constexpr int kSessionTimeoutMs = 30000;

void DropLogLine(const char* /*line*/) {}

zhandle_t* Open(const ClientLibrary& library, const std::string& hosts, watcher_fn onSession, void* context) {
  zhandle_t* const handle =
      library.init(hosts.c_str(), onSession, kSessionTimeoutMs, nullptr, context, 0, &DropLogLine);
  if (handle == nullptr) throw std::runtime_error("no client handle for " + hosts);
  library.setResolutionDelay(handle, -1);
  return handle;
}

void Check(int code) {
  if (code != ZOK) throw std::runtime_error(zerror(code));
}

}  // namespace

RawWriter::RawWriter(const std::string& hosts) {
  // Calls back at once: all members are there by now.
  m_handle = Open(ThreadedLibrary(), hosts, &RawWriter::OnSession, this);
}

RawWriter::~RawWriter() {
  zookeeper_close(m_handle);
}

void RawWriter::OnSession(zhandle_t* /*handle*/, int type, int state, const char* /*path*/, void* context) {
  if (type != ZOO_SESSION_EVENT) return;
  auto* const self = static_cast<RawWriter*>(context);
  const std::lock_guard lock(self->m_mtx);
  self->m_connected = state == ZOO_CONNECTED_STATE;
  self->m_changed.notify_all();
}

void RawWriter::OnVoid(int code, const void* context) {
  auto* const self = const_cast<RawWriter*>(static_cast<const RawWriter*>(context));
  const std::lock_guard lock(self->m_mtx);
  if (code != ZOK && code != ZNODEEXISTS) self->m_error = code;
  --self->m_outstanding;
  self->m_changed.notify_all();
}

void RawWriter::Begin() {
  std::unique_lock lock(m_mtx);
  const auto hasRoom = [this] { return m_connected && m_outstanding < kWindow; };
  Require(m_changed.wait_for(lock, kLimit, hasRoom), "server too slow");
  ++m_outstanding;
}

void RawWriter::Create(const std::string& path, const std::string& data) {
  Begin();
  Check(zoo_acreate(m_handle, path.c_str(), data.data(), static_cast<int>(data.size()), &ZOO_OPEN_ACL_UNSAFE,
                    ZOO_PERSISTENT, &RawWriter::OnString, this));
}

void RawWriter::Join(const std::string& path, const std::string& data) {
  const auto slash = path.rfind('/');
  const std::string partition = path.substr(0, slash);
  const ServiceId id = ParseServiceId(path.substr(slash + 1)).value();
  zr::messaging::halden::NewestInstance message;
  message.set_format_version(1);
  message.set_instance_id(id.begin(), id.size());
  message.set_node(data);
  const std::string newest = message.SerializeAsString();
  std::array<zoo_op_t, 2> both{};
  zoo_create_op_init(both.data(), path.c_str(), data.data(), static_cast<int>(data.size()),
                     &ZOO_OPEN_ACL_UNSAFE, ZOO_PERSISTENT, nullptr, 0);
  zoo_set_op_init(&both[1], partition.c_str(), newest.data(), static_cast<int>(newest.size()), -1, nullptr);
  Begin();
  Check(zoo_amulti(m_handle, static_cast<int>(both.size()), both.data(), m_results.data(), &RawWriter::OnVoid,
                   this));
}

void RawWriter::Set(const std::string& path, const std::string& data) {
  Begin();
  Check(zoo_aset(m_handle, path.c_str(), data.data(), static_cast<int>(data.size()), -1, &RawWriter::OnStat,
                 this));
}

void RawWriter::Delete(const std::string& path) {
  Begin();
  Check(zoo_adelete(m_handle, path.c_str(), -1, &RawWriter::OnVoid, this));
}

void RawWriter::Finish() {
  std::unique_lock lock(m_mtx);
  const bool done = m_changed.wait_for(lock, kLimit, [this] { return m_outstanding == 0; });
  Require(done && m_error == 0, "nodes not written");
}

RawReader::RawReader(Side build, std::string hosts, Tally* tally, std::size_t window)
    : m_library(build == kSingle ? SingleThreadedLibrary() : ThreadedLibrary()),
      m_hosts(std::move(hosts)),
      m_tally(tally),
      m_window(window) {}

RawReader::~RawReader() {
  m_thread.reset();
  if (m_handle != nullptr) m_library.close(m_handle);
}

void RawReader::Begin(std::vector<std::string> servicePaths) {
  m_services = std::move(servicePaths);
  m_outstanding = m_services.size();
  m_handle = Open(m_library, m_hosts, &RawReader::OnSession, this);
  if (m_library.process != nullptr) m_thread.emplace(m_library, m_handle);
}

std::size_t RawReader::AwaitLoaded() {
  std::unique_lock lock(m_mtx);
  const bool loaded = m_changed.wait_for(lock, kLimit, [this] { return m_loaded; });
  Require(loaded && m_error == 0, "nodes not read");
  return m_read;
}

void RawReader::OnSession(zhandle_t* handle, int type, int state, const char* /*path*/, void* context) {
  if (type != ZOO_SESSION_EVENT || state != ZOO_CONNECTED_STATE) return;
  auto* const self = static_cast<RawReader*>(context);
  self->m_handle = handle;  // it can come before the opening has returned
  for (auto& path : std::exchange(self->m_services, {})) self->List(std::move(path), true);
}

void RawReader::OnWatch(zhandle_t* /*handle*/, int type, int /*state*/, const char* path, void* context) {
  auto* const self = static_cast<RawReader*>(context);
  if (type == ZOO_SESSION_EVENT || self->m_tally == nullptr) return;
  if (type == ZOO_CHILD_EVENT) {
    ++self->m_outstanding;
    self->List(path, false);
  } else if (type == ZOO_DELETED_EVENT) {
    self->Forget(path);
  } else if (const auto present = self->m_present.find(path); present != self->m_present.end()) {
    self->Read(present->second);
  }
}

/// The caller has counted it as outstanding.
void RawReader::List(std::string path, bool ofService) {
  Listing& listing = m_listings.emplace_back(Listing{this, std::move(path), ofService});
  m_library.awgetChildren2(m_handle, listing.path.c_str(), &RawReader::OnWatch, this, &RawReader::OnChildren,
                           &listing);
}

void RawReader::OnChildren(int code, const String_vector* names, const Stat* /*stat*/, const void* context) {
  const auto* const listing = static_cast<const Listing*>(context);
  RawReader* const self = listing->reader;
  for (int i = 0; code == ZOK && i < names->count; ++i) {
    std::string path = listing->path + "/" + names->data[i];
    if (listing->ofService) {
      ++self->m_outstanding;
      self->List(std::move(path), false);
    } else {
      self->Found(std::move(path));
    }
  }
  self->SendReads();
  self->Answered(code);
}

void RawReader::Found(std::string path) {
  if (m_tally != nullptr && m_present.contains(path)) return;
  Instance& instance = m_instances.emplace_back(Instance{this, std::move(path), false});
  if (m_tally != nullptr) m_present.emplace(instance.path, &instance);
  m_toRead.push_back(&instance);
}

void RawReader::Read(Instance* instance) {
  ++m_outstanding;
  m_library.awget(m_handle, instance->path.c_str(), &RawReader::OnWatch, this, &RawReader::OnData, instance);
}

void RawReader::SendReads() {
  while (!m_toRead.empty() && m_outstanding < m_window) {
    Instance* const next = m_toRead.front();
    m_toRead.pop_front();
    Read(next);
  }
}

void RawReader::OnData(int code, const char* /*value*/, int /*length*/, const Stat* /*stat*/,
                       const void* context) {
  auto* const instance = static_cast<Instance*>(const_cast<void*>(context));
  RawReader* const self = instance->reader;
  if (code == ZNONODE && self->m_tally != nullptr) {
    self->Forget(instance->path);
    code = ZOK;
  } else if (code == ZOK) {
    ++self->m_read;
    const bool isNew = !std::exchange(instance->known, true);
    if (self->m_tally != nullptr) self->m_tally->Count(isNew ? Tally::kAdded : Tally::kModified);
  }
  self->SendReads();
  self->Answered(code);
}

void RawReader::Forget(const std::string& path) {
  const auto present = m_present.find(path);
  if (present == m_present.end()) return;
  if (present->second->known) m_tally->Count(Tally::kRemoved);
  m_present.erase(present);
}

void RawReader::Answered(int code) {
  const bool done = --m_outstanding == 0;
  if (code == ZOK && !done) return;
  const std::lock_guard lock(m_mtx);
  if (code != ZOK) m_error = code;
  m_loaded = m_loaded || done || m_error != 0;
  m_changed.notify_all();
}

}  // namespace zr::halden::bench
