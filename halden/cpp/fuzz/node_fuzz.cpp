// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// Bytes as a stranger writes them into an instance's node: what decodes can be published again unchanged.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "expect.h"
#include "node_codec.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using zr::halden::details::DecodeNode;
  using zr::halden::details::EncodeNode;
  using zr::halden::fuzz::Expect;
  const auto first = DecodeNode({reinterpret_cast<const char*>(bytes), size});
  Expect((first.data == nullptr) != first.error.empty(), "either data or an error");
  if (!first.data) return 0;
  Expect(!first.data->service_name().empty(), "an instance names its service");
  zr::messaging::halden::User user;
  user.set_name("fuzz");
  const auto encoded = EncodeNode(*first.data, user);
  const auto second = DecodeNode(encoded);
  Expect(second.error.empty(), "what was encoded decodes");
  Expect(second.data->SerializeAsString() == first.data->SerializeAsString(), "the round trip keeps all");
  Expect(EncodeNode(*second.data, user) == encoded, "the same data gives the same bytes");
  return 0;
}
