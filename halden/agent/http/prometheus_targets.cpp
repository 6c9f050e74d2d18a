// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "agent/http/prometheus_targets.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>

namespace zr::halden::agent {

namespace {

using Json = nlohmann::json;

const Json* FindPort(const Json& ports, const std::string& name) {
  const auto found =
      std::find_if(ports.begin(), ports.end(), [&name](const Json& port) { return port["name"] == name; });
  if (found != ports.end()) return &*found;
  return name.empty() && !ports.empty() ? &ports.front()
                                        : nullptr;  // the main port is the first where none is nameless
}

/// Null for what is no address.
std::optional<std::string> Address(const std::string& host, const Json& port) {
  const auto number = port["port"].get<std::uint32_t>();
  const bool strange = std::any_of(host.begin(), host.end(), [](char c) {
    return c == '/' || c == ' ' || c == '@' || static_cast<unsigned char>(c) >= 0x7F ||
           static_cast<unsigned char>(c) < 0x20;
  });
  if (host.empty() || strange || number == 0 || number > 65535) return std::nullopt;
  const bool bare = host.find(':') == std::string::npos || host.front() == '[';
  return (bare ? host : '[' + host + ']') + ':' + std::to_string(number);
}

std::string LabelName(const std::string& attribute) {
  std::string name = "__meta_halden_attribute_" + attribute;
  std::replace_if(
      name.begin(), name.end(),
      [](char c) { return (c < 'a' || c > 'z') && (c < 'A' || c > 'Z') && (c < '0' || c > '9') && c != '_'; },
      '_');
  return name;
}

}  // namespace

std::string PrometheusTargets(const ServiceView& view, const Filter& filter, const std::string& port) {
  Json groups = Json::array();
  view.Visit(filter, [&](std::string_view dataCenter, const ServiceId& id, bool held, std::string_view text) {
    const Json instance = Json::parse('{' + std::string(text));
    const Json* found = FindPort(instance["ports"], port);
    const auto address = found == nullptr ? std::nullopt : Address(instance["host"], *found);
    if (!address) return;
    const auto state = view.States().find(dataCenter);
    Json labels{{"__meta_halden_service", view.Service()},
                {"__meta_halden_data_center", dataCenter},
                {"__meta_halden_id", halden::ToString(id)},
                {"__meta_halden_status", instance["status"]},
                {"__meta_halden_version", instance["version"]},
                {"__meta_halden_weight", instance["weight"].dump()},  // every label is a text
                {"__meta_halden_freshness", halden::ToString(state->second.watcher.freshness)},
                {"__meta_halden_held", held ? "true" : "false"},
                {"__meta_halden_port_name", (*found)["name"]}};
    for (const auto& [key, value] : instance["attributes"].items()) labels[LabelName(key)] = value;
    groups.push_back(Json{{"targets", {*address}}, {"labels", std::move(labels)}});
  });
  return groups.dump();
}

}  // namespace zr::halden::agent
