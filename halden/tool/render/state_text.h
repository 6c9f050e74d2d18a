// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "halden/global_service_watcher.h"
#include "render/table.h"
#include "render/text.h"

/// How data centres are doing, for people. Pure.
namespace zr::halden::tool {

/// What a data centre's state means for who relies on it: "live, 3 instances", "connection lost, 3 instances
/// kept", "restored, connecting, 3 instances as of 12:00:03 (5m 7s ago)". `Condition` is what stands before the number,
/// which does not change with every instance.
std::string_view Condition(const DataCenterStatus& status);
Tone ConditionTone(const DataCenterStatus& status);
std::string StateText(const DataCenterStatus& status, TimePoint now = TimePoint::clock::now());
/// Everything was read once.
bool IsRead(const DataCenterStatus& status);

/// "reading: ap-south connecting, eu-west 1200, us-east 3 done"
std::string ProgressText(const std::vector<DataCenterStatus>& states);

/// A line for each data centre: what stands below the table.
std::string StateLines(const std::vector<DataCenterStatus>& states, const Look& look,
                       TimePoint now = TimePoint::clock::now());
/// The whole output of `halden status`.
std::string StateTable(const std::vector<DataCenterStatus>& states, const Look& look, TimePoint now);

}  // namespace zr::halden::tool
