// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// A snapshot file as a broken disk or a stranger leaves it: what is taken is whole. Checksums keep most inputs out, so each
// is also tried as the body of a file whose header is in order.
#include <zlib.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "expect.h"
#include "model/node_codec.h"
#include "snapshot/snapshot_codec.h"

namespace {

using namespace zr::halden::details;
using zr::halden::fuzz::Expect;

void Store(std::string& bytes, std::size_t offset, std::uint64_t number, std::size_t size) {
  for (std::size_t i = 0; i < size; ++i) bytes[offset + i] = static_cast<char>(number >> (8 * i));
}

std::uint64_t Checksum(const std::string& bytes, std::size_t from, std::size_t to) {
  return crc32_z(0, reinterpret_cast<const Bytef*>(bytes.data()) + from, to - from);
}

std::string FileWith(std::string_view body) {
  std::string bytes = EncodeSnapshot({}).substr(0, kSnapshotHeaderBytes);
  bytes += body;
  Store(bytes, 16, body.size(), 8);
  Store(bytes, 40, Checksum(bytes, kSnapshotHeaderBytes, bytes.size()), 4);
  Store(bytes, 12, Checksum(bytes, 16, kSnapshotHeaderBytes), 4);
  return bytes;
}

void Try(std::string_view bytes) {
  const auto first = DecodeSnapshot(bytes);
  Expect(first.snapshot.has_value() == first.error.empty(), "either a snapshot or an error");
  const auto isControl = [](unsigned char c) { return c < 0x20 || c == 0x7F; };
  Expect(std::none_of(first.error.begin(), first.error.end(), isControl), "the error is printable");
  if (!first.snapshot) return;
  Expect(SnapshotTime(bytes) == first.snapshot->asOf, "the header alone tells the time");
  for (const auto& instance : first.snapshot->instances) {
    Expect(!ParsePayload(instance.payload).service_name().empty(), "an instance names its service");
    Expect(instance.version.czxid > 0, "an instance is of some node");
  }
  const auto encoded = EncodeSnapshot(*first.snapshot);
  const auto second = DecodeSnapshot(encoded);
  Expect(second.error.empty() && second.snapshot->instances.size() == first.snapshot->instances.size(),
         "what was encoded decodes");
  Expect(EncodeSnapshot(*second.snapshot) == encoded, "the round trip keeps all");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(bytes), size);
  Try(input);
  Try(FileWith(input));
  return 0;
}
