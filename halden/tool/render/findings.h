// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "halden/zookeeper_config.h"
#include "render/records.h"
#include "render/table.h"

/// What is wrong, for people. Pure.
namespace zr::halden::tool {

/// "ok", "warning", "failure"
std::string_view VerdictText(Verdict verdict);

/// One line or more for each check, under its data centre's name, and how many went wrong. Long texts are
/// wrapped to the look's width.
std::string CheckText(const std::vector<Check>& checks, bool quiet, const Look& look);

/// "halden.toml:3:1: error: ..."
std::string FaultText(const ConfigFault& fault, bool isError, const Look& look);

}  // namespace zr::halden::tool
