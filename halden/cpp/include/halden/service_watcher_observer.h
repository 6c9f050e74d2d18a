// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include "halden/instance_data.h"
#include "halden/service_id.h"
#include "zrstl/export.h"

namespace zr::halden {

class ServiceWatcher;

/// What an application implements to follow instances. `watcher` is the data centre's own watcher
/// (`DataCenterName` tells which); the arguments are valid for the call only.
class ZR_EXPORT ServiceWatcherObserver {
 public:
  virtual ~ServiceWatcherObserver() = default;
  virtual void OnInstanceAdded(ServiceWatcher& watcher, const ServiceId& instance,
                               const ServiceInstanceData& data) = 0;
  virtual void OnInstanceRemoved(ServiceWatcher& watcher, const ServiceId& instance) = 0;
  virtual void OnInstanceModified(ServiceWatcher& watcher, const ServiceId& instance,
                                  const ServiceInstanceData& data) = 0;
};

}  // namespace zr::halden
