// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string_view>

#include "zrstl/string.h"

/// Bytes as "%" and two hexadecimal digits, for what a text's own syntax would take for something else. Pure.
namespace zr::halden::details {

/// All but letters, digits, "-", ".", "_" and "~".
zr::String EncodePercent(std::string_view text);

struct DecodedPercent {
  zr::String text;
  /// The offset of the first "%" that two digits do not follow; npos for none.
  std::size_t bad = std::string_view::npos;
};

DecodedPercent DecodePercent(std::string_view text);

/// Where in `encoded` the byte stands that decodes to number `offset`.
std::size_t OffsetInEncoded(std::string_view encoded, std::size_t offset);

}  // namespace zr::halden::details
