// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <variant>

#include "logger/logger.h"
#include "zr/messaging/halden/service.pb.h"

namespace zr::halden::tool {

/// What every command is told.
struct CommonOptions {
  std::string service;
  std::string configPath;
  logging::LogLevel logLevel = logging::ZRLOG_ERROR;
};

struct WatchOptions : CommonOptions {
  bool json = false;
};

struct ListOptions : CommonOptions {
  bool json = false;
  std::chrono::seconds timeout{10};
};

struct PublishOptions : CommonOptions {
  std::string dataCenter;
  zr::messaging::halden::ServiceInstanceData instance;  ///< all but service name and start time
  std::optional<unsigned> count;  ///< when given, every instance has the attribute "index"
};

/// The text of a help or version option.
struct Information {
  std::string text;
};

using Invocation = std::variant<Information, WatchOptions, ListOptions, PublishOptions>;

/// Reads the command line and checks all that can be checked without files; the environment plays no part.
/// Throws Failure(kWrongUsage).
Invocation ParseCommandLine(int argc, const char* const* argv);

}  // namespace zr::halden::tool
