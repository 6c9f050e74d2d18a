// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// Bytes as a stranger writes them into an instance's node: what decodes can be published again unchanged.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "expect.h"
#include "model/node_codec.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using namespace zr::halden::details;
  using zr::halden::fuzz::Expect;
  const std::string_view node(reinterpret_cast<const char*>(bytes), size);
  Expect(!WriterOf(node).empty(), "a writer is called something");
  const auto first = DecodeNode(node);
  Expect(first.payload.has_value() == first.error.empty(), "either a payload or an error");
  if (!first.payload) return 0;
  const auto data = ParsePayload(*first.payload);
  Expect(!data.service_name().empty(), "an instance names its service");
  zr::messaging::halden::User user;
  user.set_name("fuzz");
  const auto encoded = EncodeNode(data, user);
  const auto second = DecodeNode(encoded);
  Expect(second.error.empty(), "what was encoded decodes");
  Expect(*second.payload == data.SerializeAsString(), "the round trip keeps all");
  Expect(EncodeNode(ParsePayload(*second.payload), user) == encoded, "the same data gives the same bytes");
  return 0;
}
