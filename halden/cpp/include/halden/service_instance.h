// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include "halden/data_center_status.h"
#include "halden/instance_data.h"
#include "halden/service_id.h"
#include "zrstl/string.h"

namespace zr::halden {

/// A copy of one instance as one data centre knows it. One that is published in two data centres is two of these.
struct ServiceInstance {
  zr::String dcName;
  ServiceId id{};
  ServiceInstanceData data;
  Freshness freshness = Freshness::NeverSynchronized;  ///< its data centre's
  bool held = false;  ///< its node is gone, and the mass-removal guard holds its removal back
};

}  // namespace zr::halden
