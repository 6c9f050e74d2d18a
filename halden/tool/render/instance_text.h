// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "halden/service_watcher.h"

/// What an instance publishes, as words for people. Pure.
namespace zr::halden::tool {

using Status = messaging::halden::StatusExt;

inline constexpr std::string_view kStatusOk = "ok";
inline constexpr std::string_view kStatusDegraded = "degraded";

/// The status of that name, as the command line takes it.
std::optional<Status> StatusNamed(std::string_view name);
std::string StatusText(const ServiceInstanceData& data);

/// "8080,admin=8081"; "-" for none.
std::string PortText(const ServiceInstanceData& data);
/// "host:8080,admin=8081"; an IPv6 address is put in brackets.
std::string Endpoint(const ServiceInstanceData& data);
/// "zone=a owner="the team""
std::string AttributeText(const ServiceInstanceData& data);

}  // namespace zr::halden::tool
