// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <boost/functional/hash.hpp>
#include <boost/uuid/uuid.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <optional>
#include <string_view>

#include "zrstl/export.h"
#include "zrstl/string.h"

namespace zr::halden {

/// The identity of one service instance: a 128-bit UUID.
using ServiceId = boost::uuids::uuid;

using ServiceIdHash = boost::hash<ServiceId>;

/// A new random id.
ZR_EXPORT ServiceId MakeServiceId();

/// The canonical form: 36 characters, lower case.
ZR_EXPORT zr::String ToString(const ServiceId& id);

/// Reads the canonical form and nothing else: upper case, braces or a missing hyphen are refused.
ZR_EXPORT std::optional<ServiceId> ParseServiceId(std::string_view text);

}  // namespace zr::halden
