// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "commands.h"
#include "failure.h"
#include "halden/global_service_watcher.h"
#include "output.h"

namespace zr::halden::tool {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// False when there is a reason to end before the instances are known or the time is up.
bool AwaitInstances(const GlobalServiceWatcher& watcher, std::chrono::seconds timeout, LineWriter& output) {
  constexpr milliseconds most{100};  // how late a stop is noticed
  const auto deadline = steady_clock::now() + timeout;
  while (!output.AwaitEnd(milliseconds(0))) {
    const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
    if (watcher.AwaitSynchronized(std::clamp(left, milliseconds(0), most)) || left <= most) return true;
  }
  return false;
}

std::vector<Instance> CollectInstances(const GlobalServiceWatcher& watcher) {
  std::vector<Instance> instances;
  for (const auto& dataCenter : watcher.Watchers()) {
    for (const auto& id : dataCenter->ListInstances()) {
      Instance instance{dataCenter->DataCenterName(), id, {}};
      // Removed since it was listed? Then it is not there.
      if (dataCenter->GetInstanceData(id, instance.data)) instances.push_back(std::move(instance));
    }
  }
  return instances;
}

}  // namespace

void List(const ListOptions& options, LineWriter& output) {
  static_cast<void>(LoadEnsembles(options.configPath));
  GlobalServiceWatcher watcher(options.service, LibraryManaged{options.configPath});
  watcher.StartManagedConnections();
  if (AwaitInstances(watcher, options.timeout, output)) {
    const auto status = watcher.Status();
    output.Write(InstanceTable(CollectInstances(watcher), options.json, std::chrono::system_clock::now()));
    std::string missing;
    for (const auto& dataCenter : status) {
      if (dataCenter.watcher.freshness != Freshness::NeverSynchronized) continue;
      missing += fmt::format("{}{}: not read completely within {} s: {}", missing.empty() ? "" : "\n",
                             dataCenter.name, options.timeout.count(), StateText(dataCenter));
    }
    watcher.Close(kClosingLimit);
    output.ThrowIfFailed();
    if (!missing.empty()) throw Failure(kFailed, missing);
  }
}

}  // namespace zr::halden::tool
