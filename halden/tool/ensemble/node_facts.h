// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <zookeeper/zookeeper.h>

#include <string>
#include <string_view>

#include "render/records.h"

namespace zr::halden::tool {

/// What a node with these bytes says; where they are no instance, why not.
NodeFacts ReadNodeFacts(std::string dataCenter, const ServiceId& id, std::string path, std::string_view bytes,
                        const Stat& stat);

}  // namespace zr::halden::tool
