// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "ensemble/facts.h"
#include "halden/zookeeper_config.h"
#include "render/records.h"

/// From what was found out about data centres to what is wrong, and what to do. Pure.
namespace zr::halden::tool {

std::vector<Check> DiagnoseConfig(const ZooKeeperConfig& config, const std::string& path);
std::vector<Check> Diagnose(const EnsembleFacts& facts, const std::string& service);

}  // namespace zr::halden::tool
