// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "halden/instance_data.h"

#include <algorithm>
#include <limits>
#include <set>
#include <string>

#include "model/config_text.h"

namespace zr::halden {

namespace {

std::optional<std::uint16_t> Legal(std::uint32_t port) {
  if (port == 0 || port > std::numeric_limits<std::uint16_t>::max()) return std::nullopt;
  return static_cast<std::uint16_t>(port);
}

/// "h:80", "[::1]", "h 1": what clients could not connect to as it stands.
bool IsHost(const zr::String& host) {
  const auto isBad = [](unsigned char letter) {
    return letter <= ' ' || letter == 0x7F || letter == '[' || letter == ']' || letter == '/';
  };
  if (std::any_of(host.begin(), host.end(), isBad)) return false;
  return std::count(host.begin(), host.end(), ':') != 1;  // an IPv6 address has more
}

}  // namespace

std::optional<std::uint16_t> FindPort(const ServiceInstanceData& data, std::string_view name) {
  for (const auto& port : data.ports()) {
    if (port.name() == name && Legal(port.port())) return Legal(port.port());
  }
  return std::nullopt;
}

std::optional<std::uint16_t> MainPort(const ServiceInstanceData& data) {
  if (const auto unnamed = FindPort(data, "")) return unnamed;
  for (const auto& port : data.ports()) {
    if (const auto legal = Legal(port.port())) return legal;
  }
  return std::nullopt;
}

zr::String Endpoint(const ServiceInstanceData& data) {
  const auto port = MainPort(data);
  if (!port) return data.host();
  const bool ipv6 = data.host().find(':') != zr::String::npos;
  return (ipv6 ? '[' + data.host() + ']' : data.host()) + ':' + std::to_string(*port);
}

std::optional<zr::String> FindAttribute(const ServiceInstanceData& data, std::string_view key) {
  for (const auto& attribute : data.attributes()) {
    if (attribute.key() == key) return attribute.value();
  }
  return std::nullopt;
}

bool IsDegraded(const ServiceInstanceData& data) {
  return data.status_ext() == zr::messaging::halden::STATUS_EXT_DEGRADED;
}

std::uint32_t WeightOf(const ServiceInstanceData& data) {
  return std::max<std::uint32_t>(data.weight(), 1);
}

zr::String WhyUnfit(const ServiceInstanceData& data, std::string_view serviceName) {
  using details::Quoted;
  if (data.service_name() != serviceName) {
    return "its service is " + Quoted(data.service_name()) + ": expected " + Quoted(serviceName);
  }
  if (data.host().empty()) return "it names no host: expected the name or address that clients connect to";
  if (!IsHost(data.host()))
    return "its host is " + Quoted(data.host()) +
           ": expected a name or address without port, brackets, \"/\" and blanks";
  std::set<std::string_view> names;
  for (const auto& port : data.ports()) {
    const zr::String which = port.name().empty() ? "the port without a name" : "port " + Quoted(port.name());
    if (!Legal(port.port())) return which + " is " + std::to_string(port.port()) + ": expected 1 to 65535";
    if (!names.insert(port.name()).second) return which + " is there twice: expected once";
  }
  return {};
}

}  // namespace zr::halden
