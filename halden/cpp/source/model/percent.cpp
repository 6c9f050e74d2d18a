// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "model/percent.h"

#include <algorithm>
#include <charconv>

namespace zr::halden::details {

namespace {

constexpr std::size_t kEncodedBytes = 3;

bool StandsForItself(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '-' || c == '.' ||
         c == '_' || c == '~';
}

}  // namespace

zr::String EncodePercent(std::string_view text) {
  constexpr std::string_view digits = "0123456789ABCDEF";
  zr::String encoded;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (StandsForItself(c)) {
      encoded += c;
    } else {
      encoded += {'%', digits[byte >> 4U], digits[byte & 0xFU]};
    }
  }
  return encoded;
}

DecodedPercent DecodePercent(std::string_view text) {
  DecodedPercent decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      decoded.text += text[i];
      continue;
    }
    const auto digits = text.substr(i + 1, kEncodedBytes - 1);
    unsigned char byte = 0;
    const auto end = digits.data() + digits.size();
    const auto result = std::from_chars(digits.data(), end, byte, 16);
    if (digits.size() + 1 != kEncodedBytes || result.ec != std::errc() || result.ptr != end)
      return {decoded.text, i};
    decoded.text += static_cast<char>(byte);
    i += digits.size();
  }
  return decoded;
}

std::size_t OffsetInEncoded(std::string_view encoded, std::size_t offset) {
  std::size_t at = 0;
  for (; offset > 0 && at < encoded.size(); --offset) at += encoded[at] == '%' ? kEncodedBytes : 1;
  return std::min(at, encoded.size());
}

}  // namespace zr::halden::details
