// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// A connect string as a person types it: it is refused with its place, or means what it says.
#include "model/connect_string.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

#include "expect.h"
#include "model/access_list.h"

namespace {

zr::String Compose(const zr::halden::details::ConnectString& ensemble) {
  zr::String text;
  for (const auto& [host, port] : ensemble.hosts) {
    if (!text.empty()) text += ',';
    text += host.find(':') == zr::String::npos ? host : '[' + host + ']';
    text += ':' + std::to_string(port);
  }
  for (const char c : ensemble.chroot) text += c == '?' ? "%3F" : c == '%' ? "%25" : zr::String(1, c);
  using namespace zr::halden::details;
  if (!ensemble.acl.empty()) text = WithOption(std::move(text), kAclOption, ensemble.acl);
  if (!ensemble.authFile.empty()) text = WithOption(std::move(text), kAuthFileOption, ensemble.authFile);
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using zr::halden::details::ConnectString;
  using zr::halden::details::ParseAccessList;
  using zr::halden::details::ParseConnectString;
  using zr::halden::fuzz::Expect;
  const auto parsed = ParseConnectString(zr::String(reinterpret_cast<const char*>(bytes), size));
  if (!parsed.error.empty()) {
    Expect(parsed.offset <= size, "the fault is in the text");
    Expect(parsed.value == ConnectString{}, "a text with a fault means nothing");
    return 0;
  }
  Expect(!parsed.value.hosts.empty(), "there is a host");
  const auto& acl = parsed.value.acl;
  Expect(acl.empty() || !ParseAccessList(acl).value.empty(), "an access list has an entry");
  Expect(parsed.value.authFile.find('\n') == zr::String::npos, "a file's name fits on a line");
  const auto again = ParseConnectString(Compose(parsed.value));
  Expect(again.error.empty() && again.value == parsed.value, "the round trip keeps all");
  return 0;
}
