// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "render/records.h"
#include "render/table.h"
#include "render/text.h"

namespace zr::halden::tool {

/// The paragraph of `halden get`.
std::string NodeText(const NodeFacts& facts, const Look& look, TimePoint now);

}  // namespace zr::halden::tool
