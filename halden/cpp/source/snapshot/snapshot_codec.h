// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "model/instance_table.h"
#include "zrstl/string.h"

/// Between a snapshot and the bytes of its file. Pure; any thread.
///
///     offset  0   8 bytes  "HALDSNAP"
///             8   u32      version, 1; another one may have anything behind it
///            12   u32      checksum of the header's rest
///            16   u64      length of the body
///            24   i64      the transaction that created the service's node, 0 where there was none: the ensemble's identity
///            32   i64      when the list was true, in milliseconds since 1970
///            40   u32      checksum of the body
///            44   u32      0
///            48            the body: a ServiceSnapshot (snapshot.proto)
///
/// Numbers are little-endian, checksums are zlib's crc32.
namespace zr::halden::details {

/// What one data centre knew of one service.
struct ServiceSnapshot {
  zr::String service;
  zr::String dcName;
  std::int64_t serviceCzxid = 0;
  std::chrono::system_clock::time_point asOf;  ///< to the millisecond
  std::vector<KeptInstance> instances;
};

inline constexpr std::size_t kSnapshotHeaderBytes = 48;
/// Longer files are neither written nor read.
inline constexpr std::size_t kMaxSnapshotBytes = 512UL * 1024 * 1024;

/// Leaves out instances of no node. Empty where it would be too long.
std::string EncodeSnapshot(ServiceSnapshot snapshot);

struct DecodedSnapshot {
  std::optional<ServiceSnapshot> snapshot;
  zr::String error;  ///< why not, then
};
/// Takes any bytes, and throws only when memory runs out. Every payload has been parsed once, and every instance is of
/// some node.
DecodedSnapshot DecodeSnapshot(std::string_view bytes);

/// When the list was true that a file begins so with; null for what is no header of ours.
std::optional<std::chrono::system_clock::time_point> SnapshotTime(std::string_view header);

}  // namespace zr::halden::details
