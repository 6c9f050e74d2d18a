// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <tuple>
#include <unordered_map>

#include "zrstl/export.h"
#include "zrstl/string.h"

namespace zr::halden {

/// Data-centre name to the connect string of its ZooKeeper ensemble.
using DataCenterEnsembleMapT = std::unordered_map<zr::String, zr::String>;

/// Reads the ZooKeeper configuration at `path`. The flag is true when the whole file was in order; the map
/// holds the entries that were, whatever the flag says. Faults are logged, each with its place, to
/// "halden.config"; ReadZooKeeperConfig (halden/zookeeper_config.h) returns them instead.
ZR_EXPORT std::tuple<bool, DataCenterEnsembleMapT> ParseZooKeeperConfig(const std::string& path);

}  // namespace zr::halden
