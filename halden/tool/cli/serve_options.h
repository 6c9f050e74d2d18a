// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include "cli/words.h"

namespace CLI {
class App;
}

namespace zr::halden::tool {

/// The options that only `serve` has.
void DeclareServeOptions(CLI::App& command, Words& words);
ServeOptions ReadServeOptions(const Words& words, logging::LogLevel logLevel,
                              const std::optional<std::chrono::milliseconds>& guard);

}  // namespace zr::halden::tool
