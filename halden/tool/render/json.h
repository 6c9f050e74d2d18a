// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "halden/global_service_watcher.h"
#include "halden/instance_change.h"
#include "halden/service_id.h"
#include "halden/zookeeper_config.h"
#include "render/records.h"
#include "render/text.h"

/// What the commands print for programs: one object a line, its keys always there and in this order;
/// docs/json.md describes them. Pure functions.
namespace zr::halden::tool {

/// `data` is null for what was removed.
std::string EventLine(TimePoint time, std::string_view dataCenter, InstanceChange change, const ServiceId& id,
                      const ServiceInstanceData* data);
/// `time`: when the state began to be so, where that is told.
std::string StateLine(const DataCenterStatus& status, std::optional<TimePoint> time = std::nullopt);
std::string InstanceLine(const Instance& instance);
std::string NodeLine(const NodeFacts& facts);
std::string ServiceLine(const ServiceCount& service);
std::string FaultLine(const ConfigFault& fault, bool isError);
std::string CheckLine(const Check& check);
/// What an instance publishes, as an object of its own: the keys from `host` on.
std::string DataObject(const ServiceInstanceData& data);
/// `text` in quotes.
std::string JsonText(std::string_view text);
std::string PublishedLine(std::string_view dataCenter, const ServiceId& id);

}  // namespace zr::halden::tool
