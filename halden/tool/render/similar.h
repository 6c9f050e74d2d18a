// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>
#include <vector>

/// What somebody may have meant who misspelt a name. Pure.
namespace zr::halden::tool {

/// Of `known`, what `word` may have been meant to be: the most similar first, three at the most.
std::vector<std::string> Similar(std::string_view word, const std::vector<std::string>& known);

/// ", did you mean orders or orders-eu?"; empty where nothing is similar. Safe for a terminal.
std::string DidYouMean(std::string_view word, const std::vector<std::string>& known);

}  // namespace zr::halden::tool
