// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "halden/global_service_watcher.h"
#include "halden/service_id.h"
#include "table.h"
#include "text.h"

/// What the commands print for people. Pure functions: nothing here writes anywhere.
namespace zr::halden::tool {

using Status = messaging::halden::StatusExt;

inline constexpr std::string_view kStatusOk = "ok";
inline constexpr std::string_view kStatusDegraded = "degraded";

/// The status of that name, as the command line takes it.
std::optional<Status> StatusNamed(std::string_view name);
std::string StatusText(const ServiceInstanceData& data);

/// An instance as one data centre knows it.
struct Instance {
  std::string dataCenter;
  ServiceId id;
  ServiceInstanceData data;
  bool held = false;  ///< its node is gone, and the mass-removal guard holds its removal back
};

/// "8080,admin=8081"; "-" for none.
std::string PortText(const ServiceInstanceData& data);
/// "host:8080,admin=8081"; an IPv6 address is put in brackets.
std::string Endpoint(const ServiceInstanceData& data);
/// "zone=a owner="the team""
std::string AttributeText(const ServiceInstanceData& data);

/// What a data centre's state means for who relies on it: "live, 3 instances", "connection lost, 3 instances
/// kept". `Condition` is its first half, which does not change with every instance.
std::string_view Condition(const DataCenterStatus& status);
Tone ConditionTone(const DataCenterStatus& status);
std::string StateText(const DataCenterStatus& status);

enum class Change : std::uint8_t { Added, Modified, Removed };

std::string_view ChangeText(Change change);

/// The lines of `halden watch`, each with its line end.
class EventFormat {
 public:
  /// `dataCenterWidth`: columns to leave for the data centre's name.
  EventFormat(bool json, std::size_t dataCenterWidth, const Look& look)
      : m_json(json), m_dataCenterWidth(dataCenterWidth), m_look(look) {}

  /// `data` is null for what was removed.
  std::string Event(TimePoint time, std::string_view dataCenter, Change change, const ServiceId& id,
                    const ServiceInstanceData* data) const;
  std::string State(TimePoint time, const DataCenterStatus& status) const;

 private:
  std::string Row(TimePoint time, std::string_view dataCenter, std::string_view kind, Tone tone,
                  std::string_view rest) const;

  bool m_json;
  std::size_t m_dataCenterWidth;
  Look m_look;
};

/// Rows in the order given.
std::string InstanceTable(const std::vector<Instance>& instances, const Look& look, TimePoint now);
/// A line for each data centre: what stands below the table.
std::string StateLines(const std::vector<DataCenterStatus>& states, const Look& look);
/// The whole output of `halden status`.
std::string StateTable(const std::vector<DataCenterStatus>& states, const Look& look, TimePoint now);

}  // namespace zr::halden::tool
