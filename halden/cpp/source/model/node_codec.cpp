// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "model/node_codec.h"

#define ZLIB_CONST  // input pointers to const
#include <google/protobuf/message_lite.h>
#include <google/protobuf/stubs/logging.h>
#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <utility>

namespace zr::halden::details {

namespace {

constexpr std::uint32_t kNewestFormat = 1;

using zr::messaging::halden::ServiceInstanceData;
using zr::messaging::halden::User;
using zr::messaging::halden::ZNodeData;

/// A message for the calling thread to parse into: one that has been used keeps its memory, and a first load
/// parses 100,000 times. One that has grown by an unusual node does not stay.
template <typename Message>
Message& Scratch() {
  constexpr std::size_t most = 64UL * 1024;
  static thread_local Message message;
  if (message.SpaceUsedLong() > most) {
    Message fresh;
    message.Swap(&fresh);
  }
  return message;
}

/// Also refuses text that is not UTF-8.
bool Parse(std::string_view bytes, google::protobuf::MessageLite& message) {
  // The parser writes such text to stderr, past our log sink; a node's writer must not be able to do that.
  const google::protobuf::LogSilencer silencer;
  return message.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()));
}

/// Inflates one zlib stream that is all of `bytes`. The output grows with what really comes out, up to one
/// byte past the bound: a few kilobytes can stand for gigabytes.
zr::String Inflate(std::string_view bytes, std::string& out) {
  z_stream stream{};
  stream.next_in = reinterpret_cast<const Bytef*>(bytes.data());
  stream.avail_in = static_cast<uInt>(bytes.size());
  if (inflateInit(&stream) != Z_OK) return "zlib cannot begin";
  const auto end = [](z_stream* s) { inflateEnd(s); };
  const std::unique_ptr<z_stream, decltype(end)> owner(&stream, end);

  constexpr std::size_t firstBytes = 4096;
  int code = Z_BUF_ERROR;
  while (code == Z_BUF_ERROR && stream.avail_out == 0) {
    if (stream.total_out > kMaxPayloadBytes) return "inflates to more than the longest payload";
    out.resize(std::min(std::max({firstBytes, 4 * bytes.size(), 2 * out.size()}), kMaxPayloadBytes + 1));
    stream.next_out = reinterpret_cast<Bytef*>(out.data()) + stream.total_out;
    stream.avail_out = static_cast<uInt>(out.size() - stream.total_out);
    code = inflate(&stream, Z_FINISH);
  }
  if (code != Z_STREAM_END) return "not a whole zlib stream";
  if (stream.avail_in != 0) return "more bytes follow its zlib stream";
  if (stream.total_out > kMaxPayloadBytes) return "inflates to more than the longest payload";
  out.resize(stream.total_out);
  return {};
}

/// Empty where it does not get smaller by it.
std::string Deflate(const std::string& payload) {
  constexpr std::size_t fieldBytes = 2;  // what saying so costs in the envelope
  auto length = compressBound(static_cast<uLong>(payload.size()));
  std::string out(length, '\0');
  const int code =
      compress(reinterpret_cast<Bytef*>(out.data()), &length, reinterpret_cast<const Bytef*>(payload.data()),
               static_cast<uLong>(payload.size()));
  if (code != Z_OK || length + fieldBytes >= payload.size()) return {};
  out.resize(length);
  return out;
}

DecodedNode Bad(zr::String error) {
  return {std::nullopt, std::move(error)};
}

DecodedNode CheckPayload(std::string payload) {
  auto& data = Scratch<ServiceInstanceData>();
  if (!Parse(payload, data)) return Bad("payload: does not parse");
  if (data.service_name().empty()) return Bad("payload: no service name");
  payload.shrink_to_fit();  // it stays for as long as the instance
  return {std::move(payload), {}};
}

}  // namespace

std::string EncodeNode(const ServiceInstanceData& data, const User& user) {
  const google::protobuf::LogSilencer silencer;  // as above; who publishes checks the result
  // The schema has no maps, whose order would differ from one call to the next.
  std::string payload = data.SerializeAsString();
  std::string compressed = Deflate(payload);
  ZNodeData envelope;
  envelope.set_compression(compressed.empty() ? ZNodeData::COMP_NONE : ZNodeData::COMP_ZLIB);
  envelope.set_payload(std::move(compressed.empty() ? payload : compressed));
  *envelope.mutable_user() = user;
  return envelope.SerializeAsString();
}

bool ParseEnvelope(std::string_view bytes, ZNodeData& envelope) {
  return bytes.size() <= kMaxPayloadBytes && Parse(bytes, envelope);
}

DecodedNode DecodeNode(std::string_view bytes) {
  if (bytes.empty()) return Bad("the node is empty");
  if (bytes.size() > kMaxPayloadBytes) return Bad("the node is longer than the longest payload");
  auto& envelope = Scratch<ZNodeData>();
  if (!ParseEnvelope(bytes, envelope)) return Bad("envelope: does not parse");
  if (envelope.payload().empty()) return Bad("envelope: no payload");
  switch (envelope.compression()) {
    case ZNodeData::COMP_NONE:
      return CheckPayload(std::move(*envelope.mutable_payload()));
    case ZNodeData::COMP_ZLIB: {
      std::string payload;
      if (const auto error = Inflate(envelope.payload(), payload); !error.empty())
        return Bad("payload: " + error);
      return CheckPayload(std::move(payload));
    }
    default:
      return Bad("envelope: unknown compression " + std::to_string(static_cast<int>(envelope.compression())));
  }
}

zr::String WriterOf(std::string_view bytes) {
  ZNodeData envelope;
  if (!ParseEnvelope(bytes, envelope) || !envelope.has_user()) return "unknown";
  const User& user = envelope.user();
  return user.name() + "@" + user.host() + ", pid " + std::to_string(user.pid());
}

bool IsPayload(std::string_view bytes) {
  auto& data = Scratch<ServiceInstanceData>();
  return bytes.size() <= kMaxPayloadBytes && Parse(bytes, data) && !data.service_name().empty();
}

ServiceInstanceData ParsePayload(std::string_view payload) {
  ServiceInstanceData data;
  data.ParseFromArray(payload.data(), static_cast<int>(payload.size()));
  return data;
}

std::string EncodeNewest(const NewestInstance& newest) {
  zr::messaging::halden::NewestInstance message;
  message.set_format_version(kNewestFormat);
  message.set_instance_id(newest.id.begin(), newest.id.size());
  message.set_node(newest.bytes);
  return message.SerializeAsString();
}

std::optional<NewestInstance> DecodeNewest(std::string_view bytes) {
  zr::messaging::halden::NewestInstance message;
  NewestInstance newest{};
  if (!message.ParseFromArray(bytes.data(), static_cast<int>(bytes.size())) ||
      message.format_version() != kNewestFormat || message.instance_id().size() != newest.id.size()) {
    return std::nullopt;
  }
  std::copy(message.instance_id().begin(), message.instance_id().end(), newest.id.begin());
  newest.bytes = std::move(*message.mutable_node());
  return newest;
}

}  // namespace zr::halden::details
