// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <vector>

#include "cli/words.h"

namespace CLI {
class App;
}

namespace zr::halden::tool {

/// The options of `serve` for files that follow services. What is not the file's own holds for all that are named.
void DeclareRenderOptions(CLI::App& command, Words& words);
std::vector<agent::RenderOptions> ReadRenderOptions(const Words& words);

}  // namespace zr::halden::tool
