// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "cli/publish_options.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <limits>
#include <string_view>

#include "model/access_list.h"
#include "render/instance_text.h"

namespace zr::halden::tool {

namespace {

/// Text that will be part of a node: readers take nothing but UTF-8.
const std::string& RequireUtf8(std::string_view name, const std::string& word) {
  if (!IsUtf8(word)) Refuse(fmt::format("bad {} '{}': not valid UTF-8", name, EscapeControls(word)));
  return word;
}

void AddPort(messaging::halden::ServiceInstanceData& instance, const std::string& word) {
  const auto equals = word.find('=');
  const std::string name = equals == std::string::npos ? std::string() : word.substr(0, equals);
  const std::string number = equals == std::string::npos ? word : word.substr(equals + 1);
  RequireUtf8("--port", word);
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
  RequireUtf8("--attribute", word);
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

/// The text is not repeated: it may be a credential by mistake.
std::string ReadAcl(const std::string& word) {
  const auto parsed = details::ParseAccessList(word);
  if (!parsed.error.empty())
    Refuse(fmt::format("bad --acl, character {}: {}", parsed.offset + 1, parsed.error));
  return word;
}

}  // namespace

void DeclarePublishOptions(CLI::App& command, Words& words) {
  command.add_option("--dc", words.dataCenters, "The data centre to publish in")
      ->required()
      ->type_name("NAME")
      ->expected(1);
  command.add_option("--host", words.host, "Where the instance is reached")->required()->type_name("HOST");
  command.add_option("--port", words.ports, "A port; the main one has no name (repeatable)")
      ->required()
      ->type_name("[NAME=]PORT")
      ->allow_extra_args(false);
  command.add_option("--attribute", words.attributes, "Anything else to say of the instance (repeatable)")
      ->type_name("KEY=VALUE")
      ->allow_extra_args(false);
  auto* const count =
      command.add_option("--count", words.count, "Publish so many, told apart by the attribute \"index\"")
          ->type_name("N");
  command.add_option("--id", words.publishedId, "The instance's id (default: a new one)")
      ->type_name("UUID")
      ->excludes(count);
  command.add_option("--status", words.status, "ok or degraded")->type_name("STATUS")->capture_default_str();
  command.add_option("--weight", words.weight, "Relative share of requests; 0: not said")
      ->type_name("W")
      ->capture_default_str();
  command
      .add_option(
          "--acl", words.acl,
          "Who may do what with the instances (default: as the configuration says; else everybody all)")
      ->type_name("ACL");
  command.add_option("--service-version", words.serviceVersion, "The instance's version")->type_name("V");
}

void ReadPublishOptions(const CLI::App& command, const Words& words, PublishOptions& options) {
  constexpr unsigned mostInstances = 10000;
  if (command.count("--acl") != 0) options.acl = ReadAcl(words.acl);
  if (words.count) options.count = ParseNumber<unsigned>("--count", *words.count, 1, mostInstances);
  if (words.publishedId) options.id = ReadId("--id", *words.publishedId);
  auto& instance = options.instance;
  if (words.host.empty()) Refuse("bad --host '': expected a name or an address");
  instance.set_host(RequireUtf8("--host", words.host));
  for (const auto& word : command.get_option("--port")->results()) AddPort(instance, word);
  for (const auto& word : command.get_option("--attribute")->results())
    AddAttribute(instance, word, options.count.has_value());
  instance.set_version(RequireUtf8("--service-version", words.serviceVersion));
  instance.set_weight(
      ParseNumber<std::uint32_t>("--weight", words.weight, 0, std::numeric_limits<std::uint32_t>::max()));
  instance.set_status_ext(ParseStatus(words.status));
}

}  // namespace zr::halden::tool
