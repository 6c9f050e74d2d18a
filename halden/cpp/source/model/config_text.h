// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "zrstl/string.h"

/// A configuration file's text before it is parsed, and parts of it in messages. Pure but for `ReadFile`; any
/// thread.
namespace zr::halden::details {

/// In quotes, on one line, and cut after 100 bytes.
zr::String Quoted(std::string_view text);

/// The file's bytes in `text`; returns what is wrong, empty for nothing. Reads whatever can be read, a pipe
/// too.
zr::String ReadFile(const std::string& path, std::string& text);

/// Where `text` has a key of too many parts; npos for nowhere. "a.a.a..." makes as many nested tables,
/// which the parser does not limit (as it does nested values) and frees recursively: a long enough key
/// would overflow the stack.
std::size_t FindOverlongKey(std::string_view text);

/// So alike that one may be meant for the other.
bool IsNearly(std::string_view key, std::string_view known);

}  // namespace zr::halden::details
