// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <boost/uuid/uuid.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>

#include "zrstl/export.h"
#include "zrstl/string.h"

namespace zr::halden {

/// The identity of one service instance: a 128-bit UUID. It has an order and is written to streams.
using ServiceId = boost::uuids::uuid;

/// For `std::unordered_map<ServiceId, T, ServiceIdHash>`. std::hash of it is Boost's to define, which it does in
/// boost/uuid/uuid_hash.hpp.
struct ServiceIdHash {
  std::size_t operator()(const ServiceId& id) const noexcept {
    std::uint64_t first = 0;
    std::uint64_t second = 0;
    std::memcpy(&first, id.begin(), sizeof first);
    std::memcpy(&second, id.begin() + sizeof first, sizeof second);
    constexpr std::uint64_t odd = 0x9E3779B97F4A7C15U;  // spreads ids that were not made by chance
    const std::uint64_t mixed = first ^ (second * odd);
    return (mixed ^ (mixed >> 32U)) * odd;
  }
};

/// A new random id.
ZR_EXPORT ServiceId MakeServiceId();

/// The canonical form: 36 characters, lower case.
ZR_EXPORT zr::String ToString(const ServiceId& id);

/// Reads the canonical form and nothing else: upper case, braces or a missing hyphen are refused.
ZR_EXPORT std::optional<ServiceId> ParseServiceId(std::string_view text);

}  // namespace zr::halden
