// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "raw_client.h"

#include <chrono>
#include <stdexcept>
#include <utility>

namespace zr::halden::bench {

namespace {

constexpr std::size_t kWindow = 500;
constexpr std::chrono::seconds kLimit{60};
constexpr int kSessionTimeoutMs = 30000;

void DropLogLine(const char* /*line*/) {}

}  // namespace

void RawClient::Open() {
  m_handle = zookeeper_init2(m_hosts.c_str(), &RawClient::OnSession, kSessionTimeoutMs, nullptr, this, 0,
                             &DropLogLine);
  if (m_handle == nullptr) throw std::runtime_error("no client handle for " + m_hosts);
  zoo_set_servers_resolution_delay(m_handle, -1);
}

void RawClient::Close() {
  if (m_handle != nullptr) zookeeper_close(std::exchange(m_handle, nullptr));
  m_connected = false;
}

void RawClient::Create(const std::vector<Node>& nodes) {
  for (const auto& node : nodes) {
    std::unique_lock lock(m_mtx);
    if (!m_changed.wait_for(lock, kLimit, [this] { return m_connected && m_outstanding < kWindow; })) {
      throw std::runtime_error("server too slow");
    }
    ++m_outstanding;
    lock.unlock();
    const int code =
        zoo_acreate(m_handle, node.path.c_str(), node.data.data(), static_cast<int>(node.data.size()),
                    &ZOO_OPEN_ACL_UNSAFE, node.mode, &RawClient::OnCreated, this);
    if (code != ZOK) throw std::runtime_error(zerror(code));
  }
  std::unique_lock lock(m_mtx);
  m_changed.wait_for(lock, kLimit, [this] { return m_outstanding == 0; });
  if (m_outstanding != 0 || m_error != 0) throw std::runtime_error("nodes not created");
}

void RawClient::OnCreated(int code, const char* /*value*/, const void* self) {
  const_cast<RawClient*>(static_cast<const RawClient*>(self))->Answered(code == ZNODEEXISTS ? ZOK : code);
}

void RawClient::BeginRead(const std::string& servicePath) {
  m_servicePath = servicePath;
  m_read = 0;
  m_listings.clear();
  m_outstanding = 1;  // the listing of the service, made once connected
  Open();
}

std::size_t RawClient::FinishRead() {
  std::unique_lock lock(m_mtx);
  m_changed.wait_for(lock, kLimit, [this] { return m_outstanding == 0 && m_toRead.empty(); });
  if (m_outstanding != 0 || m_error != 0) throw std::runtime_error("nodes not read");
  return m_read;
}

void RawClient::OnSession(zhandle_t* /*handle*/, int type, int state, const char* /*path*/, void* context) {
  if (type != ZOO_SESSION_EVENT || state != ZOO_CONNECTED_STATE) return;
  auto* const self = static_cast<RawClient*>(context);
  std::string path;
  {
    const std::lock_guard lock(self->m_mtx);
    self->m_connected = true;
    path = std::exchange(self->m_servicePath, {});
    self->m_changed.notify_all();
  }
  if (!path.empty()) self->List(path, true);
}

/// The caller has counted it as outstanding.
void RawClient::List(std::string path, bool ofService) {
  Listing* listing = nullptr;
  {
    const std::lock_guard lock(m_mtx);
    listing = &m_listings.emplace_back(Listing{this, std::move(path), ofService});
  }
  zoo_awget_children2(m_handle, listing->path.c_str(), &RawClient::OnWatch, this, &RawClient::OnChildren,
                      listing);
}

void RawClient::OnChildren(int code, const String_vector* names, const Stat* /*stat*/, const void* context) {
  const auto* const listing = static_cast<const Listing*>(context);
  RawClient* const self = listing->client;
  for (int i = 0; code == ZOK && i < names->count; ++i) {
    std::string path = listing->path + "/" + names->data[i];
    std::unique_lock lock(self->m_mtx);
    if (listing->ofService) {
      ++self->m_outstanding;
      lock.unlock();
      self->List(std::move(path), false);
    } else {
      self->m_toRead.push_back(std::move(path));
    }
  }
  self->Answered(code);
  self->SendReads();
}

void RawClient::SendReads() {
  std::unique_lock lock(m_mtx);
  while (!m_toRead.empty() && m_outstanding < kWindow) {
    const std::string path = std::move(m_toRead.front());
    m_toRead.pop_front();
    ++m_outstanding;
    lock.unlock();
    zoo_awget(m_handle, path.c_str(), &RawClient::OnWatch, this, &RawClient::OnData, this);
    lock.lock();
  }
}

void RawClient::OnData(int code, const char* /*value*/, int /*length*/, const Stat* /*stat*/,
                       const void* context) {
  auto* const self = const_cast<RawClient*>(static_cast<const RawClient*>(context));
  {
    const std::lock_guard lock(self->m_mtx);
    ++self->m_read;
  }
  self->Answered(code);
  self->SendReads();
}

void RawClient::Answered(int code) {
  const std::lock_guard lock(m_mtx);
  if (code != ZOK) m_error = code;
  --m_outstanding;
  m_changed.notify_all();
}

}  // namespace zr::halden::bench
