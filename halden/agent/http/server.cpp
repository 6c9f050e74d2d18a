// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "agent/http/server.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <filesystem>
#include <utility>

#include "base/file_descriptor.h"

namespace zr::halden::agent {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;
using Local = asio::local::stream_protocol;

namespace {

/// Nobody takes connections there. One who does, and is frozen, must not keep us waiting.
bool IsAbandoned(const asio::any_io_executor& loop, const Local::endpoint& endpoint) {
  Local::socket probe(loop, endpoint.protocol());
  probe.non_blocking(true);
  error_code error;
  probe.connect(endpoint, error);
  return error == asio::error::connection_refused;
}

/// The file's number; 0 where there is none. Nobody else's has it while we hold ours open.
std::uint64_t NodeOf(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

/// Of two agents that begin at once the second finds the first: what it returns is to be held until that listens. Who may
/// read the folder can hold the lock, too, and must not keep us waiting for long.
details::FileDescriptor LockFolder(const std::string& path) {
  const auto folder = std::filesystem::absolute(path).parent_path();
  details::FileDescriptor locked(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  constexpr int tries = 20;
  constexpr int pauseMs = 50;
  for (int i = 0; locked && i < tries && flock(locked.Get(), LOCK_EX | LOCK_NB) != 0; ++i)
    poll(nullptr, 0, pauseMs);
  return locked;
}

/// Who may read what this process creates may connect: the system asks for the right to write.
void AdmitReaders(const std::string& path) {
  constexpr mode_t readers = S_IRUSR | S_IRGRP | S_IROTH;
  constexpr mode_t permissions = 0777;
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) return;
  static_cast<void>(chmod(path.c_str(), (status.st_mode & permissions) | (status.st_mode & readers) >> 1U));
}

}  // namespace

Server::Server(asio::io_context& loop, const ServiceViews& views, std::span<const StaticFile> files,
               AllowedHosts hosts, const Limits& limits)
    : m_views(views),
      m_limits(limits),
      m_hosts(std::move(hosts)),
      m_api(views, m_metrics, files, limits.bodyBytes),
      m_tcp(loop),
      m_local(loop) {}

Server::~Server() {
  const auto clients = m_clients;  // each takes itself out
  for (const auto& client : clients) client->Close();
  GivePathUp();
}

std::uint16_t Server::Listen(const tcp::endpoint& endpoint) {
  m_tcp.open(endpoint.protocol());
  m_tcp.set_option(asio::socket_base::reuse_address(true));
  m_tcp.bind(endpoint);
  m_tcp.listen();
  Accept(m_tcp);
  return m_tcp.local_endpoint().port();
}

void Server::Listen(const std::string& path) {
  const Local::endpoint endpoint(path);
  const auto lock = LockFolder(path);
  const bool isSocket = std::filesystem::is_socket(std::filesystem::symlink_status(path));
  if (isSocket && IsAbandoned(m_local.get_executor(), endpoint)) unlink(path.c_str());
  m_local.open(endpoint.protocol());
  m_local.bind(endpoint);
  m_path = path;
  m_pathNode = NodeOf(path);
  AdmitReaders(path);
  m_local.listen();
  Accept(m_local);
}

/// Before the socket closes: the next agent may take the name from then on, and that one's must stay.
void Server::GivePathUp() {
  if (m_pathNode != 0 && NodeOf(m_path) == m_pathNode) unlink(m_path.c_str());
  m_pathNode = 0;
}

template <typename Acceptor>
void Server::Accept(Acceptor& acceptor) {
  acceptor.async_accept([this, &acceptor](const error_code& error, auto socket) {
    if (error == asio::error::operation_aborted || !acceptor.is_open()) return;
    if (!error) {
      Accept(acceptor);  // first: whatever fails below, others are taken
      return Take(ClientConnection::Socket(std::move(socket)));
    }
    // Out of descriptors, most likely: some will be free again.
    constexpr std::chrono::milliseconds pause{100};
    const auto timer = std::make_shared<asio::steady_timer>(acceptor.get_executor(), pause);
    timer->async_wait([this, &acceptor, timer](const error_code& /*error*/) {
      if (acceptor.is_open()) Accept(acceptor);
    });
  });
}

void Server::Take(ClientConnection::Socket socket) {
  const bool tooMany = m_clients.size() >= m_limits.connections;
  if (tooMany) m_metrics.CountRejected("connections");
  if (m_clients.size() >= m_limits.connections + kMostTurnedAway) return;
  const auto client = std::make_shared<ClientConnection>(std::move(socket), *this);
  m_clients.insert(client);
  m_metrics.SetConnections(m_clients.size());
  if (tooMany) return client->TurnAway();
  client->Start();
}

void Server::OnChange() {
  const auto listeners = m_listeners;  // they take themselves out
  for (ClientConnection* listener : listeners) listener->OnChange();
}

void Server::Leave() {
  error_code ignored;
  m_tcp.close(ignored);
  GivePathUp();
  m_local.close(ignored);
  const auto clients = m_clients;
  for (const auto& client : clients) client->Leave();
}

bool Server::AddListener(ClientConnection& connection) {
  if (m_listeners.size() >= m_limits.listeners) return false;
  m_listeners.insert(&connection);
  return true;
}

bool Server::IsFollowed(const std::shared_ptr<const ServiceView>& view) const {
  const auto found = m_views.find(view->Service());
  return found != m_views.end() && found->second == view;
}

void Server::OnClosed(ClientConnection& connection) {
  m_clients.erase(connection.shared_from_this());
  m_metrics.SetConnections(m_clients.size());
}

}  // namespace zr::halden::agent
