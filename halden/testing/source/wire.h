// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <string>

/// ZooKeeper's encoding: big-endian numbers, and texts with their length before them.
namespace zr::halden::testing {

template <std::integral Number>
std::string Encode(Number number) {
  std::string bytes;
  for (std::size_t shift = 8 * sizeof number; shift > 0; shift -= 8) {
    bytes += static_cast<char>(number >> (shift - 8) & 0xFF);
  }
  return bytes;
}

inline std::string Encode(const std::string& text) {
  return Encode(static_cast<std::int32_t>(text.size())) + text;
}

/// The number at `offset`; 0 where the bytes end before it does.
template <std::integral Number>
Number Decode(const std::string& bytes, std::size_t offset) {
  Number number = 0;
  for (std::size_t i = 0; i < sizeof number && offset + sizeof number <= bytes.size(); ++i) {
    number = static_cast<Number>(number << 8 | static_cast<unsigned char>(bytes[offset + i]));
  }
  return number;
}

/// The text at `offset`, which moves behind it.
inline std::string DecodeText(const std::string& bytes, std::size_t& offset) {
  const auto length = std::max(Decode<std::int32_t>(bytes, offset), 0);  // -1 is a text that is null
  const std::size_t begin = std::min(offset + sizeof length, bytes.size());
  std::string text = bytes.substr(begin, static_cast<std::size_t>(length));
  offset = begin + text.size();
  return text;
}

}  // namespace zr::halden::testing
