// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "agent/view/service_view.h"

namespace zr::halden::agent {

/// What Prometheus' http_sd reads: a group for each instance, so that each has labels of its own. `port`: the name of the
/// port to scrape, empty for the main one. Instances without that port, or without a host that Prometheus takes, are
/// left out: it would refuse the whole list for one of them.
std::string PrometheusTargets(const ServiceView& view, const Filter& filter, const std::string& port);

}  // namespace zr::halden::agent
