// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <cstdint>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "agent/http/api.h"
#include "agent/http/client_connection.h"
#include "agent/http/limits.h"
#include "agent/http/metrics.h"
#include "agent/http/request.h"
#include "agent/view/service_views.h"

namespace zr::halden::agent {

/// Takes clients, over TCP and over a socket in the file system, and keeps them within the limits.
///
/// Threads: the loop's. Ownership: `views` must outlive it, and the loop must not run handlers after it is gone. Its
/// socket in the file system goes with it.
/// Errors: `Listen` throws boost::system::system_error with what could not be listened on.
class Server {
 public:
  Server(boost::asio::io_context& loop, const ServiceViews& views, std::span<const StaticFile> files,
         AllowedHosts hosts, const Limits& limits);
  ~Server();

  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  /// Returns the port: the system's choice for 0.
  std::uint16_t Listen(const boost::asio::ip::tcp::endpoint& endpoint);
  /// A socket that another process has left there is replaced; one that is served is not.
  void Listen(const std::string& path);

  /// Views have changed, or which there are.
  void OnChange();
  /// Takes no more clients, and sends away those that are there, each when its answer is done.
  void Leave();
  bool IsEmpty() const { return m_clients.empty(); }

  // For connections

  Reply Handle(const Request& request) { return m_api.Handle(request); }
  const AllowedHosts& Hosts() const { return m_hosts; }
  HttpMetrics& Metrics() { return m_metrics; }
  /// False when there are too many that wait and stream.
  bool AddListener(ClientConnection& connection);
  void RemoveListener(ClientConnection& connection) { m_listeners.erase(&connection); }
  bool IsFollowed(const std::shared_ptr<const ServiceView>& view) const;
  void OnClosed(ClientConnection& connection);

 private:
  template <typename Acceptor>
  void Accept(Acceptor& acceptor);
  void GivePathUp();
  void Take(ClientConnection::Socket socket);

  const ServiceViews& m_views;
  const Limits m_limits;
  AllowedHosts m_hosts;
  HttpMetrics m_metrics;
  Api m_api;
  boost::asio::ip::tcp::acceptor m_tcp;
  boost::asio::local::stream_protocol::acceptor m_local;
  std::string m_path;            // of the local one, if there is one
  std::uint64_t m_pathNode = 0;  // the file there, while it is ours
  std::set<std::shared_ptr<ClientConnection>> m_clients;
  std::set<ClientConnection*> m_listeners;  // of them, those that wait or stream
};

}  // namespace zr::halden::agent
