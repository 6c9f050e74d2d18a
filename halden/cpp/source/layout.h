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

inline zr::String ServicePath(const zr::String& service) {
  return zr::String(kServicesPath) + "/" + service;
}

inline std::uint8_t PartitionOf(const ServiceId& id) {
  std::uint8_t partition = 0;
  for (const std::uint8_t byte : id) partition ^= byte;
  return partition;
}

inline zr::String PartitionName(std::uint8_t partition) {
  constexpr std::string_view digits = "0123456789abcdef";
  return {digits[partition >> 4U], digits[partition & 0xFU]};
}

/// The partition that `name` names; nothing when it is no partition's name.
inline std::optional<std::uint8_t> ParsePartition(std::string_view name) {
  constexpr std::string_view digits = "0123456789abcdef";
  if (name.size() != 2) return std::nullopt;
  const auto high = digits.find(name[0]);
  const auto low = digits.find(name[1]);
  if (high == std::string_view::npos || low == std::string_view::npos) return std::nullopt;
  return static_cast<std::uint8_t>((high << 4U) | low);
}

inline zr::String PartitionPath(const zr::String& servicePath, std::uint8_t partition) {
  return servicePath + "/" + PartitionName(partition);
}

inline zr::String InstancePath(const zr::String& servicePath, const ServiceId& id) {
  return PartitionPath(servicePath, PartitionOf(id)) + "/" + ToString(id);
}

}  // namespace zr::halden::details
