// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string_view>

#include "zrstl/string.h"

/// UTF-8, and text of strangers made harmless for whoever prints it. Pure; any thread.
namespace zr {

/// Takes one code point off the front of `text`, which must not be empty. Nothing, and `text` untouched,
/// where that is not valid UTF-8: overlong forms, surrogates and what lies past U+10FFFF are not.
inline std::optional<char32_t> TakeCodePoint(std::string_view& text) {
  constexpr std::array<char32_t, 5> leastOfLength{0, 0, 0x80, 0x800, 0x10000};
  const auto lead = static_cast<unsigned char>(text.front());
  if (lead < 0x80) {
    text.remove_prefix(1);
    return lead;
  }
  const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC0 || lead > 0xF4 || text.size() < length) return std::nullopt;
  char32_t point = lead & (0xFFU >> (length + 1));
  for (std::size_t i = 1; i < length; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if ((byte & 0xC0U) != 0x80) return std::nullopt;
    point = (point << 6U) | (byte & 0x3FU);
  }
  const bool isSurrogate = point >= 0xD800 && point <= 0xDFFF;
  if (point < leastOfLength[length] || point > 0x10FFFF || isSurrogate) return std::nullopt;
  text.remove_prefix(length);
  return point;
}

inline bool IsUtf8(std::string_view text) {
  while (!text.empty()) {
    if (!TakeCodePoint(text)) return false;
  }
  return true;
}

/// What starts a new line, steers a terminal, or means nothing in a name: U+0000 to U+001F, U+007F to U+009F.
constexpr bool IsControl(char32_t point) {
  return point < 0x20 || (point >= 0x7F && point <= 0x9F);
}

/// `text` with its control characters as a backslash, an x and two digits. Takes any bytes: those that are not UTF-8
/// stay as they are.
inline zr::String EscapeControls(std::string_view text) {
  constexpr std::string_view digits = "0123456789abcdef";
  constexpr unsigned char leadOfHighControls = 0xC2;  // U+0080 to U+009F, whose other byte is their number
  zr::String safe;
  unsigned char before = 0;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const bool isHigh = byte >= 0x80 && before == leadOfHighControls && IsControl(byte);
    if (isHigh) safe.pop_back();
    if (isHigh || (byte < 0x80 && IsControl(byte))) {
      safe += {'\\', 'x', digits[byte >> 4U], digits[byte & 0xFU]};
    } else {
      safe += c;
    }
    before = byte;
  }
  return safe;
}

}  // namespace zr
