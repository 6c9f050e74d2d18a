// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <fmt/format.h>

#include <charconv>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "cli/options.h"
#include "halden/service_id.h"
#include "io/failure.h"
#include "render/instance_text.h"
#include "zrstl/utf8.h"

/// Words of the command line, read strictly. All functions throw Failure(kWrongUsage) with what was expected.
namespace zr::halden::tool {

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
  std::string acl;
  std::function<Invocation()> read;  ///< of the command that was named
};

[[noreturn]] inline void Refuse(const std::string& why) {
  throw Failure(kWrongUsage, why);
}

template <typename Number>
Number ParseNumber(std::string_view name, std::string_view word, Number least, Number most) {
  Number number{};
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
  if (error != std::errc() || end != word.data() + word.size() || number < least || number > most) {
    Refuse(fmt::format("bad {} '{}': expected a whole number from {} to {}", name, EscapeControls(word),
                       least, most));
  }
  return number;
}

inline ServiceId ReadId(std::string_view name, std::string_view word) {
  const auto id = ParseServiceId(word);
  if (!id) {
    Refuse(fmt::format("bad {} '{}': expected a UUID in lower case, as '{}'", name, EscapeControls(word),
                       "3f2a8c1e-5b7d-4e09-9a64-0c1d2e3f4a5b"));
  }
  return *id;
}

}  // namespace zr::halden::tool
