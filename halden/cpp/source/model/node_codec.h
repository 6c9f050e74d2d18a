// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "halden/service_id.h"
#include "zr/messaging/halden/service.pb.h"
#include "zrstl/string.h"

/// Between a node's bytes and an instance's data. Pure; any thread.
namespace zr::halden::details {

/// Decompressed payloads are at most this long; a longer one is a bad payload.
inline constexpr std::size_t kMaxPayloadBytes = 8UL * 1024 * 1024;
/// The longest node ZooKeeper takes with its default settings, less room for path and headers.
inline constexpr std::size_t kMaxNodeBytes = 1000UL * 1000;

struct DecodedNode {
  std::optional<std::string> payload;  ///< a serialized ServiceInstanceData; null when the bytes are bad
  zr::String error;                    ///< what is wrong with them then
};

/// The bytes of a node that publishes `data`, written by `user`; compressed only where that makes it smaller.
/// The same arguments give the same bytes. Takes what it is given: data that DecodeNode would refuse (no
/// service name, text that is not UTF-8, too long) gives bytes that it refuses, so a publisher tries them on
/// it.
std::string EncodeNode(const zr::messaging::halden::ServiceInstanceData& data,
                       const zr::messaging::halden::User& user);

/// Takes any bytes, and throws only when memory runs out. The payload has been parsed once, so that
/// `ParsePayload` succeeds on it; it takes a third of the memory of what it is parsed into.
DecodedNode DecodeNode(std::string_view bytes);

/// What stands around a payload: its compression, and who wrote it. False, and anything in `envelope`, where
/// `bytes` are none.
bool ParseEnvelope(std::string_view bytes, zr::messaging::halden::ZNodeData& envelope);

/// What a partition's node holds: which instance was created last in it, and the bytes of its node then.
struct NewestInstance {
  ServiceId id;
  std::string bytes;
};
/// For what such a creation takes with it, beside the node itself; longer ones do without.
inline constexpr std::size_t kMaxNewestBytes = 16UL * 1024;

std::string EncodeNewest(const NewestInstance& newest);
/// Null for anything that is not one.
std::optional<NewestInstance> DecodeNewest(std::string_view bytes);

/// Who wrote the node, for people: "search@host-1, pid 4711"; "unknown" where it does not say.
zr::String WriterOf(std::string_view bytes);

/// Whether `ParsePayload` succeeds on it, and it names a service.
bool IsPayload(std::string_view bytes);
/// Fields it does not know stay in the result.
zr::messaging::halden::ServiceInstanceData ParsePayload(std::string_view payload);

}  // namespace zr::halden::details
