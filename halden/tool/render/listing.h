// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include "render/instance_text.h"
#include "render/records.h"
#include "render/table.h"
#include "render/text.h"

/// Tables of what is published. Pure.
namespace zr::halden::tool {

/// Rows in the order given.
std::string InstanceTable(const std::vector<Instance>& instances, const ShortIds& ids, const Look& look,
                          TimePoint now);
std::string ServiceTable(const std::vector<ServiceCount>& services, const Look& look);

}  // namespace zr::halden::tool
