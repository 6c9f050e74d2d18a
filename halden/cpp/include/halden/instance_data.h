// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "zr/messaging/halden/service.pb.h"
#include "zrstl/export.h"
#include "zrstl/string.h"

/// What an instance says of itself, read without a second guess: any field can be missing, since others write it
/// too. Pure; any thread.
namespace zr::halden {

using ServiceInstanceData = zr::messaging::halden::ServiceInstanceData;

/// The port without a name, else the first one. Nothing where there is none from 1 to 65535.
ZR_EXPORT std::optional<std::uint16_t> MainPort(const ServiceInstanceData& data);
/// The port of that name, if there is one from 1 to 65535.
ZR_EXPORT std::optional<std::uint16_t> FindPort(const ServiceInstanceData& data, std::string_view name);

/// Where to connect to: "host:8080", with an IPv6 address in brackets; only the host where there is no port.
ZR_EXPORT zr::String Endpoint(const ServiceInstanceData& data);

/// The first attribute with that key.
ZR_EXPORT std::optional<zr::String> FindAttribute(const ServiceInstanceData& data, std::string_view key);

/// It serves, but should be preferred last.
ZR_EXPORT bool IsDegraded(const ServiceInstanceData& data);

/// The relative share of requests that is meant for it: 1 where it does not say.
ZR_EXPORT std::uint32_t WeightOf(const ServiceInstanceData& data);

/// Why `data` is not fit to be published as an instance of `serviceName`, for people; empty when it is. It
/// must name that service and a host (without port, brackets, "/" and blanks); its ports are from 1 to 65535,
/// and no two have one name.
ZR_EXPORT zr::String WhyUnfit(const ServiceInstanceData& data, std::string_view serviceName);

}  // namespace zr::halden
