// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "agent/serve/serve_config.h"
#include "halden/service_id.h"
#include "logger/logger.h"
#include "zr/messaging/halden/service.pb.h"

namespace zr::halden::tool {

/// What tells the instances of one `halden publish` apart.
inline constexpr std::string_view kIndexAttribute = "index";

/// What every command that reads data centres is told.
struct CommonOptions {
  std::string configPath;
  logging::LogLevel logLevel = logging::ZRLOG_ERROR;
  bool json = false;
  bool quiet = false;                                ///< only results and errors
  std::optional<std::chrono::milliseconds> timeout;  ///< null: the command's own default
  std::vector<std::string> dataCenters;              ///< only these; empty: all

  std::chrono::milliseconds Patience() const { return timeout.value_or(std::chrono::seconds(10)); }
};

struct WatchOptions : CommonOptions {
  std::string service;
  std::optional<std::chrono::milliseconds> guard;  ///< how long mass removals are held back; null: not at all
  bool wide = false;                               ///< nothing is shortened
  std::string snapshots;  ///< folder of snapshot files; empty: as the configuration says
};

/// Of the commands that show what is there now.
struct ViewOptions : CommonOptions {
  std::string service;
  bool live = false;
  std::optional<std::chrono::milliseconds> guard;
  bool wide = false;
  std::string snapshots;
};

struct ListOptions : ViewOptions {};
struct StatusOptions : ViewOptions {};

struct GetOptions : CommonOptions {
  std::string service;
  std::string id;  ///< how it begins, in lower case
};

struct ServicesOptions : CommonOptions {};

struct DoctorOptions : CommonOptions {
  std::string service;  ///< empty: only what concerns all services
};

struct ConfigCheckOptions {
  std::string path;
  logging::LogLevel logLevel = logging::ZRLOG_ERROR;
  bool json = false;
  bool quiet = false;
};

struct PublishOptions : CommonOptions {
  std::string service;
  zr::messaging::halden::ServiceInstanceData instance;  ///< all but service name and start time
  std::optional<unsigned> count;  ///< when given, every instance has the attribute "index"
  std::optional<ServiceId> id;    ///< null: a new one
  std::string acl;                ///< empty: as the configuration says
};

/// What shells offer when a word is to be completed.
struct CompleteOptions {
  enum class What : std::uint8_t { DataCenters, Services };
  std::string configPath;
  What what = What::DataCenters;
};

struct ServeOptions {
  std::string configPath;
  logging::LogLevel logLevel = logging::ZRLOG_ERROR;
  bool quiet = false;
  agent::ServeSettings settings;
};

/// A text that is asked for: help, version, example.
struct Information {
  std::string text;
};

using Invocation =
    std::variant<Information, WatchOptions, ListOptions, StatusOptions, GetOptions, ServicesOptions,
                 DoctorOptions, ConfigCheckOptions, PublishOptions, CompleteOptions, ServeOptions>;

}  // namespace zr::halden::tool
