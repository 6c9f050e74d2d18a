// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "halden/connection_v2.h"

/// What the doctor finds out about a data centre.
namespace zr::halden::tool {

struct ServerFacts {
  std::string server;  ///< "host:port"
  bool isName = false;
  std::string resolveError;
  std::string connectError;  ///< empty where one of its addresses takes connections
  bool closes = false;       ///< it takes them, and closes them before a word was said
};

/// What who has no credential may do to a service: permissions as bits (see details::Permission), of any of its
/// nodes of a kind.
struct Exposure {
  int code = 0;  ///< of the first look at an access list that failed
  std::int32_t service = 0;
  std::int32_t partitions = 0;
  std::int32_t instances = 0;
  std::size_t writable = 0;  ///< instances
};

/// A service's nodes in one data centre.
struct ServiceFacts {
  int code = 0;  ///< of the first read that failed: ZNONODE where there is no service node
  std::size_t instances = 0;
  std::size_t oddNodes = 0;  ///< by their names no instances
  std::string oddExample;    ///< the path of one of them
  std::size_t unreadable = 0;
  std::string unreadableExample;  ///< the path of one of them, why, and who wrote it
  std::size_t refused = 0;        ///< partitions and instances that may not be read
  std::string refusedExample;
  std::size_t unfit = 0;  ///< that say what no client can use
  std::string unfitExample;
  std::size_t sessionless = 0;  ///< that stay when their writers go
  std::string sessionlessExample;
  std::size_t largest = 0;  ///< bytes
  std::string largestPath;
  std::size_t total = 0;       ///< bytes
  std::size_t watchBytes = 0;  ///< of all watches on it, in the packet that sets them again
  Exposure exposure;
};

struct EnsembleFacts {
  std::string dataCenter;
  std::vector<ServerFacts> servers;
  ConnectionStatus status;
  bool session = false;
  std::string chroot;
  bool hasCredential = false;
  int chrootCode = 0;                 ///< of a look at it
  int servicesCode = 0;               ///< of a read of the node above all services
  std::vector<std::string> services;  ///< that it has
  std::optional<ServiceFacts> service;
};

}  // namespace zr::halden::tool
