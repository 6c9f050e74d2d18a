// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "config/toml_place.h"

#include <algorithm>

#include "zrstl/sstream.h"

namespace zr::halden::details {

Cursor::Cursor(std::string_view text) : m_text(text) {
  constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
  if (text.starts_with(byteOrderMark)) m_offset = byteOrderMark.size();
}

std::string_view Cursor::From(const Place& place) {
  while (m_place < place && Step()) {
  }
  return m_text.substr(m_offset);
}

Place Cursor::PlaceOf(std::size_t offset) {
  while (m_offset < offset && Step()) {
  }
  return m_place;
}

bool Cursor::Step() {
  if (m_offset == m_text.size()) return false;
  if (m_text[m_offset++] == '\n') {
    m_place = {m_place.line + 1, 1};
    return true;
  }
  while (m_offset < m_text.size() && (static_cast<unsigned char>(m_text[m_offset]) & 0xC0U) == 0x80)
    ++m_offset;
  ++m_place.column;
  return true;
}

TomlEntries InOrder(const toml::table& table) {
  TomlEntries entries;
  for (const auto& [key, node] : table) entries.emplace_back(&key, &node);
  std::sort(entries.begin(), entries.end(),
            [](const auto& a, const auto& b) { return a.first->source().begin < b.first->source().begin; });
  return entries;
}

Place PlaceInString(Place place, std::string_view value, std::size_t offset, Cursor& cursor) {
  const auto source = cursor.From(place);
  if (source.empty() || !source.substr(1).starts_with(value)) return place;
  const auto before = value.substr(0, offset);
  const auto isFirstByte = [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80; };
  place.column +=
      1 + static_cast<toml::source_index>(std::count_if(before.begin(), before.end(), isFirstByte));
  return place;
}

zr::String TypeOf(const toml::node& node) {
  zr::StringStream text;
  text << "of type " << node.type();
  return Finish(text);
}

}  // namespace zr::halden::details
