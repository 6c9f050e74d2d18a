// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "commands.h"
#include "halden/global_service_watcher.h"
#include "json.h"
#include "output.h"
#include "view.h"

namespace zr::halden::tool {

namespace {

std::vector<Instance> CollectInstances(const GlobalServiceWatcher& watcher) {
  std::vector<Instance> instances;
  for (const auto& dataCenter : watcher.Watchers()) {
    const auto heldIds = dataCenter->ListHeldInstances();
    const std::set<ServiceId> held(heldIds.begin(), heldIds.end());
    for (const auto& id : dataCenter->ListInstances()) {
      Instance instance{dataCenter->DataCenterName(), id, {}, held.contains(id)};
      // Removed since it was listed? Then it is not there.
      if (dataCenter->GetInstanceData(id, instance.data)) instances.push_back(std::move(instance));
    }
  }
  Sort(instances);
  return instances;
}

std::string Objects(const std::vector<Instance>& instances, const std::vector<DataCenterStatus>& states) {
  std::string text;
  for (const auto& instance : instances) text += InstanceLine(instance);
  for (const auto& state : states) text += StateLine(state);
  return text;
}

/// States stand below the table, and keep their place where lines are few.
std::string Tables(const std::vector<Instance>& instances, const std::vector<DataCenterStatus>& states,
                   const Look& look, std::size_t rows) {
  const std::string table = InstanceTable(instances, look, std::chrono::system_clock::now());
  if (states.empty()) return rows == 0 ? table : FirstLines(table, rows);
  const std::string below = '\n' + StateLines(states, look);
  if (rows == 0) return table + below;
  const std::size_t forTable = rows - std::min(rows, states.size() + 1);
  return FirstLines(table, forTable) + below;
}

}  // namespace

void Do(const ListOptions& options, LineWriter& output) {
  const auto picture = [&options](const GlobalServiceWatcher& watcher, const Look& look, std::size_t rows) {
    const auto states = options.quiet ? std::vector<DataCenterStatus>() : watcher.Status();
    const auto instances = CollectInstances(watcher);
    return options.json ? Objects(instances, states) : Tables(instances, states, look, rows);
  };
  View(options, picture, output);
}

}  // namespace zr::halden::tool
