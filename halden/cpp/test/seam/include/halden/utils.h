// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <tuple>
#include <unordered_map>

#include "seam/journal.h"
#include "zrstl/string.h"

namespace zr::halden {

using DataCenterEnsembleMapT = std::unordered_map<zr::String, zr::String>;

namespace test {
/// What the stand-in for the configuration reader answers.
inline std::tuple<bool, DataCenterEnsembleMapT> g_config;
}  // namespace test

inline std::tuple<bool, DataCenterEnsembleMapT> ParseZooKeeperConfig(const std::string& path) {
  test::Journal::Get().Step("ParseZooKeeperConfig(" + path + ")");
  return test::g_config;
}

}  // namespace zr::halden
