// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "agent/view/service_view.h"

namespace zr::halden::agent {

/// The services that are followed now. A reader keeps its view while it needs it; one that is not here any more is
/// told nothing new.
using ServiceViews = std::map<std::string, std::shared_ptr<const ServiceView>, std::less<>>;

}  // namespace zr::halden::agent
