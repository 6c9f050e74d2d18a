// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <boost/asio/ip/tcp.hpp>
#include <chrono>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "agent/http/limits.h"
#include "agent/render/options.h"
#include "halden/zookeeper_config.h"

namespace zr::halden::agent {

/// Null where the text is not what kEndpoint says.
std::optional<boost::asio::ip::tcp::endpoint> ParseEndpoint(const std::string& text);
inline constexpr std::string_view kEndpoint = "an address and a port, as 127.0.0.1:7470 or [::1]:7470";

/// What the agent does: what the command line says, and the table [serve] of the configuration where it says nothing.
struct ServeSettings {
  std::set<std::string> services;     ///< those of both are followed
  std::optional<std::string> listen;  ///< "address:port"; empty: not over TCP
  std::optional<std::string> socket;  ///< a path; empty: none
  std::set<std::string> allowedHosts;
  bool allowRemote = false;
  std::optional<std::chrono::milliseconds> guard;  ///< how long mass removals are held back
  std::string snapshotFolder;                      ///< empty: that of the configuration, if it names one
  Limits limits;
  std::vector<RenderOptions> files;  ///< that follow services
};

struct ServeConfig {
  ServeSettings settings;
  std::vector<ConfigFault> faults;
  std::vector<ConfigFault> warnings;
};

/// Reads the table [serve] of the file at `path`, if there is one. Throws nothing on bad input. What is wrong elsewhere in
/// the file is for ReadZooKeeperConfig to tell.
ServeConfig ReadServeConfig(const std::string& path);

/// `more` where it says something, else `settings`.
ServeSettings Combined(ServeSettings settings, const ServeSettings& more);

}  // namespace zr::halden::agent
