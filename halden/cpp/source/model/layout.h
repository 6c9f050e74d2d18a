// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "halden/service_id.h"
#include "zrstl/string.h"

/// Where things stand in ZooKeeper, below the ensemble's chroot:
///
///     /halden/services/<service>/<partition>/<uuid>
///
/// The partition is the exclusive-or of the id's 16 bytes as two lower-case hex digits. Why partitions: child
/// watches are one-shot and carry no names, so with one flat list every join would make every watcher read
/// the whole list again.
namespace zr::halden::details {

inline constexpr std::string_view kServicesPath = "/halden/services";
inline constexpr std::size_t kPartitions = 256;
inline constexpr std::string_view kHexDigits = "0123456789abcdef";

inline zr::String ServicePath(const zr::String& service) {
  zr::String path(kServicesPath);
  path += '/';
  path += service;
  return path;
}

inline std::uint8_t PartitionOf(const ServiceId& id) {
  std::uint8_t partition = 0;
  for (const std::uint8_t byte : id) partition ^= byte;
  return partition;
}

inline zr::String PartitionName(std::uint8_t partition) {
  zr::String name;
  name += kHexDigits[partition >> 4U];
  name += kHexDigits[partition & 0xFU];
  return name;
}

/// The partition that `name` names; nothing when it is no partition's name.
inline std::optional<std::uint8_t> ParsePartition(std::string_view name) {
  if (name.size() != 2) return std::nullopt;
  const auto high = kHexDigits.find(name[0]);
  const auto low = kHexDigits.find(name[1]);
  if (high == std::string_view::npos || low == std::string_view::npos) return std::nullopt;
  return static_cast<std::uint8_t>((high << 4U) | low);
}

inline zr::String PartitionPath(const zr::String& servicePath, std::uint8_t partition) {
  return servicePath + "/" + PartitionName(partition);
}

inline zr::String InstancePath(const zr::String& servicePath, const ServiceId& id) {
  zr::String path = PartitionPath(servicePath, PartitionOf(id));
  path += '/';
  path += ToString(id);
  return path;
}

}  // namespace zr::halden::details
