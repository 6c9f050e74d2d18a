// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "halden/service_id.h"

#include <boost/uuid/random_generator.hpp>
#include <cstddef>
#include <cstdint>

namespace zr::halden {

namespace {

constexpr std::size_t kTextLength = 36;
constexpr unsigned kNoDigit = 16;

/// By arithmetic: a partition's list of hundreds of names is read whenever one comes or goes.
constexpr unsigned DigitOf(char c) {
  if (c >= '0' && c <= '9') return static_cast<unsigned>(c - '0');
  if (c >= 'a' && c <= 'f') return static_cast<unsigned>(c - 'a') + 10;
  return kNoDigit;
}

constexpr bool IsHyphenPosition(std::size_t i) {
  return i == 8 || i == 13 || i == 18 || i == 23;
}

}  // namespace

ServiceId MakeServiceId() {
  return boost::uuids::random_generator()();
}

zr::String ToString(const ServiceId& id) {
  return boost::uuids::to_string(id);
}

std::optional<ServiceId> ParseServiceId(std::string_view text) {
  if (text.size() != kTextLength) return std::nullopt;
  ServiceId id{};
  std::size_t nibble = 0;
  for (std::size_t i = 0; i < kTextLength; ++i) {
    if (IsHyphenPosition(i)) {
      if (text[i] != '-') return std::nullopt;
      continue;
    }
    const unsigned digit = DigitOf(text[i]);
    if (digit == kNoDigit) return std::nullopt;
    auto& byte = id.data[nibble / 2];
    byte = static_cast<std::uint8_t>((unsigned{byte} << 4U) | digit);
    ++nibble;
  }
  return id;
}

}  // namespace zr::halden
