// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// A connect string as a person types it: it is refused with its place, or means what it says.
#include "model/connect_string.h"

#include <cstddef>
#include <cstdint>
#include <string>

#include "expect.h"

namespace {

zr::String Compose(const zr::halden::details::ConnectString& ensemble) {
  zr::String text;
  for (const auto& [host, port] : ensemble.hosts) {
    if (!text.empty()) text += ',';
    text += host.find(':') == zr::String::npos ? host : '[' + host + ']';
    text += ':' + std::to_string(port);
  }
  return text + ensemble.chroot;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using zr::halden::details::ConnectString;
  using zr::halden::details::ParseConnectString;
  using zr::halden::fuzz::Expect;
  const auto parsed = ParseConnectString(zr::String(reinterpret_cast<const char*>(bytes), size));
  if (!parsed.error.empty()) {
    Expect(parsed.offset <= size, "the fault is in the text");
    Expect(parsed.value == ConnectString{}, "a text with a fault means nothing");
    return 0;
  }
  Expect(!parsed.value.hosts.empty(), "there is a host");
  const auto again = ParseConnectString(Compose(parsed.value));
  Expect(again.error.empty() && again.value == parsed.value, "the round trip keeps all");
  return 0;
}
