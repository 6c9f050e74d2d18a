// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <zookeeper/zookeeper.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "output.h"

namespace zr::halden::tool {

/// All that an instance's node says, of itself and of who wrote it.
struct NodeFacts {
  std::string dataCenter;
  ServiceId id{};
  std::string path;                         ///< below the chroot
  std::optional<ServiceInstanceData> data;  ///< null: unreadable
  std::string error;                        ///< why, then
  std::optional<messaging::halden::User> writer;
  bool compressed = false;
  std::size_t bytes = 0;
  std::int64_t createdMs = 0;
  std::int64_t writtenMs = 0;
  std::int32_t writes = 0;     ///< since the node was created
  std::int64_t sessionId = 0;  ///< that the node goes with
};

/// Any bytes will do.
NodeFacts FactsOf(std::string dataCenter, const ServiceId& id, std::string path, std::string_view bytes,
                  const Stat& stat);

/// The paragraph of `halden get`.
std::string NodeText(const NodeFacts& facts, const Look& look, TimePoint now);

}  // namespace zr::halden::tool
