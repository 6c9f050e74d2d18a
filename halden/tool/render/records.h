// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "halden/service_id.h"
#include "halden/service_watcher.h"

/// What a line or a row of the output is made of.
namespace zr::halden::tool {

/// An instance as one data centre knows it.
struct Instance {
  std::string dataCenter;
  ServiceId id;
  ServiceInstanceData data;
  bool held = false;  ///< its node is gone, and the mass-removal guard holds its removal back
};

/// How many instances of a service a data centre has.
struct ServiceCount {
  std::string dataCenter;
  std::string name;
  std::optional<std::size_t> instances;  ///< null where that may not be read
};

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

enum class Verdict : std::uint8_t { Ok, Warning, Failure };

/// What the doctor says of one thing.
struct Check {
  std::string dataCenter;  ///< empty: of the configuration as a whole
  std::string_view subject;
  Verdict verdict = Verdict::Ok;
  std::string finding;
  std::string advice;  ///< empty where all is well
};

}  // namespace zr::halden::tool
