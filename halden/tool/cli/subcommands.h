// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include "cli/words.h"

namespace CLI {
class App;
}

namespace zr::halden::tool {

/// Declares every command with its options, and which function reads them: the one place that help,
/// completions and the manual page come from. Once `app` has parsed, `words.read` makes of the words what the
/// command is told; it throws Failure(kWrongUsage). `words` must outlive `app`.
void Declare(CLI::App& app, Words& words);

}  // namespace zr::halden::tool
