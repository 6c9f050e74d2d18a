// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "options.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cstdint>
#include <limits>
#include <string_view>
#include <vector>

#include "failure.h"
#include "halden/service_watcher.h"
#include "logger/sink.h"
#include "output.h"

namespace zr::halden::tool {

namespace {

constexpr std::string_view kIndexAttribute = "index";

/// The options' words as they were typed. CLI11 takes them apart but does not read them: its numbers allow
/// octal and its lists allow brackets, which would surprise in a port or an attribute.
struct Words {
  std::string service;
  std::string config;
  std::string logLevel{"error"};
  bool json = false;
  std::string timeout{"10"};
  std::string dataCenter;
  std::string host;
  std::vector<std::string> ports;
  std::vector<std::string> attributes;
  std::optional<std::string> count;
  std::string status{kStatusOk};
  std::string weight{"0"};
  std::string serviceVersion;
};

[[noreturn]] void Refuse(const std::string& why) {
  throw Failure(kWrongUsage, why);
}

template <typename Number>
Number ParseNumber(std::string_view name, std::string_view word, Number least, Number most) {
  Number number{};
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
  if (error != std::errc() || end != word.data() + word.size() || number < least || number > most) {
    Refuse(fmt::format("bad {} '{}': expected a whole number from {} to {}", name, word, least, most));
  }
  return number;
}

/// Text that will be part of a node: readers take nothing but UTF-8.
const std::string& CheckText(std::string_view name, const std::string& word) {
  if (!IsUtf8(word)) Refuse(fmt::format("bad {} '{}': not valid UTF-8", name, EscapeControls(word)));
  return word;
}

void AddPort(messaging::halden::ServiceInstanceData& instance, const std::string& word) {
  const auto equals = word.find('=');
  const std::string name = equals == std::string::npos ? std::string() : word.substr(0, equals);
  const std::string number = equals == std::string::npos ? word : word.substr(equals + 1);
  CheckText("--port", word);
  if (equals == 0) Refuse(fmt::format("bad --port '{}': no name before '='", word));
  const bool twice = std::any_of(instance.ports().begin(), instance.ports().end(),
                                 [&](const auto& other) { return other.name() == name; });
  if (twice) Refuse(fmt::format("bad --port '{}': every port but one needs a name of its own", word));
  auto& port = *instance.add_ports();
  port.set_name(name);
  port.set_port(ParseNumber<std::uint32_t>("--port", number, 1, std::numeric_limits<std::uint16_t>::max()));
}

void AddAttribute(messaging::halden::ServiceInstanceData& instance, const std::string& word, bool counted) {
  const auto equals = word.find('=');
  CheckText("--attribute", word);
  if (equals == std::string::npos || equals == 0) {
    Refuse(fmt::format("bad --attribute '{}': expected KEY=VALUE", word));
  }
  const std::string key = word.substr(0, equals);
  if (counted && key == kIndexAttribute) {
    Refuse(fmt::format("bad --attribute '{}': --count sets '{}' itself", word, kIndexAttribute));
  }
  const bool twice = std::any_of(instance.attributes().begin(), instance.attributes().end(),
                                 [&](const auto& other) { return other.key() == key; });
  if (twice) Refuse(fmt::format("bad --attribute '{}': '{}' is given twice", word, key));
  auto& attribute = *instance.add_attributes();
  attribute.set_key(key);
  attribute.set_value(word.substr(equals + 1));
}

messaging::halden::StatusExt ParseStatus(const std::string& word) {
  const auto status = StatusNamed(word);
  if (!status) Refuse(fmt::format("bad --status '{}': expected {} or {}", word, kStatusOk, kStatusDegraded));
  return *status;
}

CommonOptions ReadCommon(const Words& words) {
  if (!IsValidServiceName(words.service)) {
    Refuse(
        fmt::format("bad service name '{}': expected 1 to 255 bytes of UTF-8 without '/' and control "
                    "characters, and not '.' or '..'",
                    EscapeControls(words.service)));
  }
  const auto level = logging::ParseLogLevel(words.logLevel);
  if (!level) {
    Refuse(fmt::format("bad --log-level '{}': expected debug, info, warning, error, critical or off",
                       words.logLevel));
  }
  return {words.service, words.config, *level};
}

PublishOptions ReadPublish(const Words& words) {
  constexpr unsigned mostInstances = 10000;
  PublishOptions options{ReadCommon(words), words.dataCenter, {}, {}};
  if (words.count) options.count = ParseNumber<unsigned>("--count", *words.count, 1, mostInstances);
  auto& instance = options.instance;
  if (words.host.empty()) Refuse("bad --host '': expected a name or an address");
  instance.set_host(CheckText("--host", words.host));
  for (const auto& word : words.ports) AddPort(instance, word);
  for (const auto& word : words.attributes) AddAttribute(instance, word, options.count.has_value());
  instance.set_version(CheckText("--service-version", words.serviceVersion));
  instance.set_weight(
      ParseNumber<std::uint32_t>("--weight", words.weight, 0, std::numeric_limits<std::uint32_t>::max()));
  instance.set_status_ext(ParseStatus(words.status));
  return options;
}

CLI::App& AddCommand(CLI::App& app, Words& words, const char* name, const char* description) {
  CLI::App& command = *app.add_subcommand(name, description);
  command.set_version_flag("--version", "halden " HALDEN_VERSION, "Print the version and end");
  command.add_option("SERVICE", words.service, "The service's name")->required();
  command.add_option("--config", words.config, "The data centres and their ensembles (TOML)")
      ->required()
      ->type_name("FILE");
  command.add_option("--log-level", words.logLevel, "debug, info, warning, error, critical or off")
      ->type_name("LEVEL")
      ->capture_default_str();
  return command;
}

CLI::App& AddWatch(CLI::App& app, Words& words) {
  auto& command =
      AddCommand(app, words, "watch", "Print what happens to a service's instances, as it happens");
  command.add_flag("--json", words.json, "One JSON object a line");
  command.footer("Ends on SIGINT and SIGTERM.\n\nExample:\n  halden watch orders --config halden.toml\n");
  return command;
}

CLI::App& AddList(CLI::App& app, Words& words) {
  auto& command = AddCommand(app, words, "list", "Print a service's instances in all data centres");
  command.add_flag("--json", words.json, "One JSON object a line");
  command.add_option("--timeout", words.timeout, "How long to wait for data centres that do not answer")
      ->type_name("SECONDS")
      ->capture_default_str();
  command.footer(
      "Returns 1 when a data centre could not be read in time; what is known is printed even so.\n\n"
      "Example:\n  halden list orders --config halden.toml --timeout 3\n");
  return command;
}

CLI::App& AddPublish(CLI::App& app, Words& words) {
  auto& command = AddCommand(app, words, "publish", "Publish instances of a service until interrupted");
  command.add_option("--dc", words.dataCenter, "The data centre to publish in")
      ->required()
      ->type_name("NAME");
  command.add_option("--host", words.host, "Where the instance is reached")->required()->type_name("HOST");
  command.add_option("--port", words.ports, "A port; the main one has no name (repeatable)")
      ->required()
      ->type_name("[NAME=]PORT")
      ->allow_extra_args(false);
  command.add_option("--attribute", words.attributes, "Anything else to say of the instance (repeatable)")
      ->type_name("KEY=VALUE")
      ->allow_extra_args(false);
  command.add_option("--count", words.count, "Publish so many, told apart by the attribute \"index\"")
      ->type_name("N");
  command.add_option("--status", words.status, "ok or degraded")->type_name("STATUS")->capture_default_str();
  command.add_option("--weight", words.weight, "Relative share of requests; 0: not said")
      ->type_name("W")
      ->capture_default_str();
  command.add_option("--service-version", words.serviceVersion, "The instance's version")->type_name("V");
  command.footer(
      "Prints the id of each instance once it is published. SIGUSR1 changes their status to degraded,\n"
      "SIGUSR2 back to ok; SIGINT and SIGTERM remove them and end.\n\n"
      "Example:\n  halden publish orders --config halden.toml --dc eu-west --host 10.0.0.7 \\\n"
      "    --port 8080 --port admin=8081 --attribute zone=a\n");
  return command;
}

}  // namespace

Invocation ParseCommandLine(int argc, const char* const* argv) {
  Words words;
  CLI::App app("Service discovery over ZooKeeper, across data centres", "halden");
  app.set_version_flag("--version", "halden " HALDEN_VERSION, "Print the version and end");
  app.require_subcommand(1);
  app.footer("Example:\n  halden list orders --config halden.toml\n");
  const CLI::App& watch = AddWatch(app, words);
  const CLI::App& list = AddList(app, words);
  const CLI::App& publish = AddPublish(app, words);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    return Information{app.help()};  // of the command that was named, if any
  } catch (const CLI::CallForVersion& e) {
    return Information{std::string(e.what()) + '\n'};
  } catch (const CLI::ParseError& e) {
    Refuse(std::string(e.what()) + " (halden --help tells more)");
  }
  if (watch.parsed()) return WatchOptions{ReadCommon(words), words.json};
  if (list.parsed()) {
    constexpr unsigned day = 24U * 60 * 60;
    const std::chrono::seconds timeout(ParseNumber<unsigned>("--timeout", words.timeout, 0, day));
    return ListOptions{ReadCommon(words), words.json, timeout};
  }
  words.ports = publish.get_option("--port")->results();
  words.attributes = publish.get_option("--attribute")->results();
  return ReadPublish(words);
}

}  // namespace zr::halden::tool
