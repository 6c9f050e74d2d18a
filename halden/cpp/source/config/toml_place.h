// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <toml++/toml.h>

#include <cstddef>
#include <string_view>
#include <utility>
#include <vector>

#include "zrstl/string.h"

/// Places in a TOML text. Pure.
namespace zr::halden::details {

using Place = toml::source_position;  // counts lines and code points from 1

/// Goes through a text once, from place to place, counting lines and columns as the parser does.
class Cursor {
 public:
  explicit Cursor(std::string_view text);

  /// What stands at `place`, which is not before the one asked for last.
  std::string_view From(const Place& place);

  Place PlaceOf(std::size_t offset);

 private:
  bool Step();

  std::string_view m_text;
  std::size_t m_offset = 0;
  Place m_place{1, 1};
};

using TomlEntries = std::vector<std::pair<const toml::key*, const toml::node*>>;

/// As they stand in the text.
TomlEntries InOrder(const toml::table& table);

/// The place of byte `offset` of a string value; the value's own place when the file spells it differently
/// (with escapes, or over several lines).
Place PlaceInString(Place place, std::string_view value, std::size_t offset, Cursor& cursor);

/// "of type integer"
zr::String TypeOf(const toml::node& node);

}  // namespace zr::halden::details
