// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace zr {

/// The platform's string: a plain byte string, compared byte for byte.
using String = std::string;

/// Kept apart by name so that code which only refers to text says so; the same type today.
using InPlaceRefString = String;

}  // namespace zr
