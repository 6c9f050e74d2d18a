// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <chrono>
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
#include "render/text.h"
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
  std::string agentLogLevel{"warning"};  // nobody sits before it: what went wrong is looked up later
  bool verbose = false;
  bool quiet = false;
  bool json = false;
  bool live = false;
  bool wide = false;
  std::optional<std::string> timeout;
  std::optional<std::string> guard;
  std::vector<std::string> dataCenters;
  std::string snapshots;
  std::string host;
  std::vector<std::string> ports;
  std::vector<std::string> attributes;
  std::optional<std::string> count;
  std::optional<std::string> publishedId;
  std::vector<std::string> services;
  std::optional<std::string> listen;
  std::optional<std::string> socket;
  std::vector<std::string> allowedHosts;
  bool allowRemote = false;
  std::vector<std::string> renderedFiles;
  std::optional<std::string> renderWait;
  std::string check;
  std::string reload;
  bool allowEmpty = false;
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

/// Seconds, with a fraction where one is given.
inline std::optional<std::chrono::milliseconds> ReadSeconds(std::string_view name,
                                                            const std::optional<std::string>& word,
                                                            std::chrono::milliseconds least) {
  constexpr std::chrono::hours most{24};
  if (!word) return std::nullopt;
  double seconds = 0;
  const char* const end = word->data() + word->size();
  const auto [rest, error] = std::from_chars(word->data(), end, seconds, std::chars_format::fixed);
  const std::chrono::duration<double> time(seconds);
  // What is no number at all is not within them either.
  if (error != std::errc() || rest != end || !(time >= least && time <= most)) {
    Refuse(fmt::format("bad {} '{}': expected seconds from {:g} to {}", name, EscapeControls(*word),
                       std::chrono::duration<double>(least).count(), std::chrono::seconds(most).count()));
  }
  return std::chrono::round<std::chrono::milliseconds>(time);
}

inline constexpr std::string_view kIdExample = "3f2a8c1e-5b7d-4e09-9a64-0c1d2e3f4a5b";

/// In any letter case.
inline ServiceId ReadId(std::string_view name, std::string_view word) {
  const auto id = ParseServiceId(LowerCase(word));
  if (!id)
    Refuse(fmt::format("bad {} '{}': expected a UUID, as '{}'", name, EscapeControls(word), kIdExample));
  return *id;
}

/// A UUID, or how one begins, in lower case.
inline std::string ReadIdPrefix(std::string_view name, std::string_view word) {
  std::string prefix = LowerCase(word);
  // What is missing may be anything.
  const std::string whole =
      prefix + std::string(kIdExample.substr(std::min(prefix.size(), kIdExample.size())));
  if (prefix.empty() || !ParseServiceId(whole)) {
    Refuse(fmt::format("bad {} '{}': expected a UUID, or how one begins, as '{}' or '{}'", name,
                       EscapeControls(word), kIdExample, kIdExample.substr(0, 8)));
  }
  return prefix;
}

}  // namespace zr::halden::tool
