// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "snapshot/snapshot_codec.h"

#include <google/protobuf/stubs/logging.h>
#include <zlib.h>

#include <algorithm>
#include <utility>

#include "model/node_codec.h"
#include "zr/messaging/halden/snapshot.pb.h"

namespace zr::halden::details {

namespace {

using std::chrono::milliseconds;

constexpr std::string_view kMagic = "HALDSNAP";
constexpr std::uint32_t kVersion = 1;
constexpr std::size_t kVersionAt = 8;
constexpr std::size_t kHeaderChecksumAt = 12;
constexpr std::size_t kChecksummedFrom = 16;
constexpr std::size_t kLengthAt = 16;
constexpr std::size_t kCzxidAt = 24;
constexpr std::size_t kTimeAt = 32;
constexpr std::size_t kBodyChecksumAt = 40;

template <typename Number>
void Store(std::string& bytes, std::size_t offset, Number number) {
  for (std::size_t i = 0; i < sizeof number; ++i) {
    bytes[offset + i] = static_cast<char>(static_cast<std::uint64_t>(number) >> (8 * i));
  }
}

template <typename Number>
Number Load(std::string_view bytes, std::size_t offset) {
  std::uint64_t number = 0;
  for (std::size_t i = 0; i < sizeof(Number); ++i) {
    number |= std::uint64_t{static_cast<unsigned char>(bytes[offset + i])} << (8 * i);
  }
  return static_cast<Number>(number);
}

std::uint32_t Checksum(std::string_view bytes) {
  return static_cast<std::uint32_t>(crc32_z(0, reinterpret_cast<const Bytef*>(bytes.data()), bytes.size()));
}

/// Empty for a header of ours; what stands behind it is not looked at.
zr::String HeaderFault(std::string_view bytes) {
  if (!bytes.starts_with(kMagic)) return bytes.empty() ? "it is empty" : "it is no snapshot";
  if (bytes.size() < kSnapshotHeaderBytes) return "it ends in the header";
  const auto version = Load<std::uint32_t>(bytes, kVersionAt);
  if (version != kVersion) return "it is of format " + std::to_string(version) + ", expected 1";
  const auto header = bytes.substr(0, kSnapshotHeaderBytes);
  if (Load<std::uint32_t>(header, kHeaderChecksumAt) != Checksum(header.substr(kChecksummedFrom))) {
    return "the header is damaged";
  }
  return {};
}

zr::String BodyFault(std::string_view header, std::string_view body) {
  const auto length = Load<std::uint64_t>(header, kLengthAt);
  if (body.size() != length) {
    return "it has " + std::to_string(body.size()) + " bytes behind the header, expected " +
           std::to_string(length);
  }
  if (Load<std::uint32_t>(header, kBodyChecksumAt) != Checksum(body)) return "the checksum is wrong";
  return {};
}

/// Within what no arithmetic of clocks overflows at: times are compared with now.
milliseconds Bounded(std::int64_t sinceEpoch) {
  constexpr std::int64_t most = 7'000'000'000'000;  // the year 2191
  return milliseconds(std::clamp<std::int64_t>(sinceEpoch, 0, most));
}

/// Empty where it is taken.
zr::String Take(messaging::halden::SnapshotInstance& from, KeptInstance& to) {
  if (from.id().size() != to.id.size()) return "its id has " + std::to_string(from.id().size()) + " bytes";
  if (from.czxid() <= 0 || from.mzxid() < from.czxid()) return "no node has its transaction numbers";
  if (!IsPayload(from.payload())) return "its data does not parse";
  std::copy(from.id().begin(), from.id().end(), to.id.begin());
  to.version = {from.czxid(), from.mzxid()};
  to.payload = std::move(*from.mutable_payload());
  return {};
}

}  // namespace

std::string EncodeSnapshot(ServiceSnapshot snapshot) {
  messaging::halden::ServiceSnapshot body;
  body.set_service(snapshot.service);
  body.set_data_center(snapshot.dcName);
  body.mutable_instances()->Reserve(static_cast<int>(snapshot.instances.size()));
  for (auto& instance : snapshot.instances) {
    if (instance.version.czxid <= 0) continue;
    auto& one = *body.add_instances();
    one.set_id(instance.id.begin(), instance.id.size());
    one.set_czxid(instance.version.czxid);
    one.set_mzxid(instance.version.mzxid);
    one.set_payload(std::move(instance.payload));
  }
  if (body.ByteSizeLong() > kMaxSnapshotBytes - kSnapshotHeaderBytes) return {};
  std::string bytes(kSnapshotHeaderBytes, '\0');
  body.AppendToString(&bytes);
  std::copy(kMagic.begin(), kMagic.end(), bytes.begin());
  Store(bytes, kVersionAt, kVersion);
  Store(bytes, kLengthAt, std::uint64_t{bytes.size() - kSnapshotHeaderBytes});
  Store(bytes, kCzxidAt, snapshot.serviceCzxid);
  Store(bytes, kTimeAt,
        std::int64_t{std::chrono::floor<milliseconds>(snapshot.asOf.time_since_epoch()).count()});
  const std::string_view written = bytes;
  Store(bytes, kBodyChecksumAt, Checksum(written.substr(kSnapshotHeaderBytes)));
  Store(bytes, kHeaderChecksumAt,
        Checksum(written.substr(kChecksummedFrom, kSnapshotHeaderBytes - kChecksummedFrom)));
  return bytes;
}

DecodedSnapshot DecodeSnapshot(std::string_view bytes) {
  const auto bad = [](zr::String why) { return DecodedSnapshot{std::nullopt, std::move(why)}; };
  if (auto fault = HeaderFault(bytes); !fault.empty()) return bad(std::move(fault));
  const auto encoded = bytes.substr(kSnapshotHeaderBytes);
  if (auto fault = BodyFault(bytes, encoded); !fault.empty()) return bad(std::move(fault));
  messaging::halden::ServiceSnapshot body;
  {
    const google::protobuf::LogSilencer silencer;  // the parser writes to stderr, past our log
    if (encoded.size() > kMaxSnapshotBytes ||
        !body.ParseFromArray(encoded.data(), static_cast<int>(encoded.size()))) {
      return bad("the body does not parse");
    }
  }
  ServiceSnapshot snapshot{
      body.service(), body.data_center(), Load<std::int64_t>(bytes, kCzxidAt), *SnapshotTime(bytes), {}};
  snapshot.instances.resize(static_cast<std::size_t>(body.instances_size()));
  for (std::size_t i = 0; i < snapshot.instances.size(); ++i) {
    const auto fault = Take(*body.mutable_instances(static_cast<int>(i)), snapshot.instances[i]);
    if (!fault.empty()) return bad("instance " + std::to_string(i + 1) + ": " + fault);
  }
  return {std::move(snapshot), {}};
}

std::optional<std::chrono::system_clock::time_point> SnapshotTime(std::string_view header) {
  if (!HeaderFault(header).empty()) return std::nullopt;
  return std::chrono::system_clock::time_point(Bounded(Load<std::int64_t>(header, kTimeAt)));
}

}  // namespace zr::halden::details
