// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "output.h"

namespace CLI {
class App;
}

namespace zr::halden::tool {

struct PublishOptions;

/// The options' words as they were typed. CLI11 takes them apart but does not read them: its numbers allow
/// octal and its lists allow brackets, which would surprise in a port or an attribute.
struct Words {
  std::string service;
  std::string id;
  std::string config;
  std::string format;
  std::string logLevel{"error"};
  bool verbose = false;
  bool quiet = false;
  bool json = false;
  bool live = false;
  std::optional<std::string> timeout;
  std::optional<std::string> guard;
  std::string dataCenter;
  std::string host;
  std::vector<std::string> ports;
  std::vector<std::string> attributes;
  std::optional<std::string> count;
  std::optional<std::string> publishedId;
  std::string status{kStatusOk};
  std::string weight{"0"};
  std::string serviceVersion;
};

/// Declares every command with its options: the one place that help, completions and the manual page come
/// from. `words` must outlive `app`.
void Declare(CLI::App& app, Words& words);

/// What `halden publish` is told of its instances. Throws Failure(kWrongUsage).
void ReadInstance(const Words& words, PublishOptions& options);

}  // namespace zr::halden::tool
