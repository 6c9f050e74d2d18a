// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include "cli/words.h"

namespace CLI {
class App;
}

namespace zr::halden::tool {

/// The options of `halden publish` that are its own. `words` must outlive `command`.
void DeclarePublishOptions(CLI::App& command, Words& words);

/// What they say of the instances.
void ReadPublishOptions(const CLI::App& command, const Words& words, PublishOptions& options);

}  // namespace zr::halden::tool
