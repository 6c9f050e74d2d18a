// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "agent/follow/follower.h"
#include "agent/http/server.h"
#include "agent/serve/files.h"
#include "agent/serve/serve_config.h"
#include "agent/serve/service_manager.h"

namespace zr::halden::agent {

struct AgentOptions {
  std::string configPath;
  ServeSettings settings;  ///< of the command line
  /// Is told where the agent can be asked, once it can.
  std::function<void(const std::string& url)> announce;
};

/// `halden serve`: follows services and serves what is known of them, until it is told to stop.
///
/// Threads: `Run` is the one loop that does everything but what watchers do. Errors: the constructor throws
/// std::runtime_error, one line for each thing that is wrong, for a configuration with faults and for what
/// cannot be listened on.
class Agent {
 public:
  /// The program's own signals come as descriptors that become readable; `takeReload` takes one that waits.
  struct Signals {
    int stop = -1;
    int reload = -1;
    std::function<void()> takeReload;
  };

  Agent(AgentOptions options, const Signals& signals);

  /// Returns when it was told to stop, clients have been sent away and sessions are closed, or that took too long.
  void Run();

 private:
  void Listen(const ServeSettings& settings);
  void Follow(const ServeSettings& settings, const DataCenterEnsembleMapT& ensembles);
  void AwaitStop();
  void AwaitReload();
  void Reload();
  void Leave(std::chrono::steady_clock::time_point deadline);
  void TellManager();
  void FeedWatchdog();
  void OnChange();

  const AgentOptions m_options;
  const std::function<void()> m_takeReload;
  std::vector<StaticFile> m_files;
  boost::asio::io_context m_loop{1};
  ServiceManager m_manager;
  boost::asio::posix::stream_descriptor m_stop;
  boost::asio::posix::stream_descriptor m_reload;
  boost::asio::steady_timer m_leaving;
  boost::asio::steady_timer m_telling;
  boost::asio::steady_timer m_feeding;
  std::unique_ptr<Server> m_server;  // before the follower tells of changes
  Follower m_follower;
  Files m_rendered;
};

}  // namespace zr::halden::agent
