// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "halden/global_service_watcher.h"
#include "halden/service_id.h"

/// What the commands print, as text. Pure functions: nothing here writes anywhere.
namespace zr::halden::tool {

using TimePoint = std::chrono::system_clock::time_point;
using Status = messaging::halden::StatusExt;

inline constexpr std::string_view kStatusOk = "ok";
inline constexpr std::string_view kStatusDegraded = "degraded";

/// The status of that name, as the command line takes it.
std::optional<Status> StatusNamed(std::string_view name);

/// Control characters as \xNN: what others publish must not start a new line or steer a terminal.
std::string EscapeControls(std::string_view text);

bool IsUtf8(const std::string& text);

/// An instance as one data centre knows it.
struct Instance {
  std::string dataCenter;
  ServiceId id;
  ServiceInstanceData data;
};

/// "host:8080,admin=8081"; an IPv6 address is put in brackets.
std::string Endpoint(const ServiceInstanceData& data);

/// The two largest units of the time since `startTimeMs`: "3d 4h", "12m 5s", "7s"; "-" when it was not said.
std::string Age(std::int64_t startTimeMs, TimePoint now);

/// What a data centre's state means for who relies on it: "live, 3 instances", "connection lost, 3 instances
/// kept". `Condition` is its first half, which does not change with every instance.
std::string_view Condition(const DataCenterStatus& status);
std::string StateText(const DataCenterStatus& status);

enum class Change : std::uint8_t { Added, Modified, Removed };

/// The lines of `halden watch`, each with its line end.
class EventFormat {
 public:
  /// `dataCenterWidth`: columns to leave for the data centre's name.
  EventFormat(bool json, std::size_t dataCenterWidth) : m_json(json), m_dataCenterWidth(dataCenterWidth) {}

  /// `data` is null for what was removed.
  std::string Event(TimePoint time, std::string_view dataCenter, Change change, const ServiceId& id,
                    const ServiceInstanceData* data) const;
  std::string State(TimePoint time, const DataCenterStatus& status) const;

 private:
  std::string Row(TimePoint time, std::string_view dataCenter, std::string_view kind,
                  std::string_view rest) const;

  bool m_json;
  std::size_t m_dataCenterWidth;
};

/// The whole output of `halden list`, sorted by data centre and id: a table, or one JSON object a line.
std::string InstanceTable(std::vector<Instance> instances, bool json, TimePoint now);

/// Columns that `text` takes up, counting each character as one.
std::size_t Width(std::string_view text);

}  // namespace zr::halden::tool
