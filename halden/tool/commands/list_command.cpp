// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "commands/commands.h"
#include "commands/view.h"
#include "halden/global_service_watcher.h"
#include "render/json.h"
#include "render/listing.h"
#include "render/state_text.h"

namespace zr::halden::tool {

namespace {

struct Listing {
  std::vector<Instance> instances;
  std::size_t more = 0;  // that are left out
};

/// The first instances by data centre and id; `most` of them, 0: all.
Listing CollectInstances(const GlobalServiceWatcher& watcher, std::size_t most) {
  auto watchers = watcher.Watchers();
  std::sort(watchers.begin(), watchers.end(),
            [](const auto& a, const auto& b) { return a->DataCenterName() < b->DataCenterName(); });
  Listing listing;
  for (const auto& dataCenter : watchers) {
    const auto heldIds = dataCenter->ListHeldInstances();
    const std::set<ServiceId> held(heldIds.begin(), heldIds.end());
    auto ids = dataCenter->ListInstances();
    std::sort(ids.begin(), ids.end());
    for (const auto& id : ids) {
      if (most != 0 && listing.instances.size() == most) {
        ++listing.more;
        continue;
      }
      Instance instance{dataCenter->DataCenterName(), id, {}, held.contains(id)};
      // Removed since it was listed? Then it is not there.
      if (dataCenter->GetInstanceData(id, instance.data)) listing.instances.push_back(std::move(instance));
    }
  }
  return listing;
}

std::string Objects(const std::vector<Instance>& instances, const std::vector<DataCenterStatus>& states) {
  std::string text;
  for (const auto& instance : instances) text += InstanceLine(instance);
  for (const auto& state : states) text += StateLine(state);
  return text;
}

/// States stand below the table, and keep their place where lines are few.
std::string Tables(const GlobalServiceWatcher& watcher, const std::vector<DataCenterStatus>& states,
                   bool wide, const Look& look, std::size_t rows) {
  constexpr std::size_t frame = 2;  // the titles, and what says how many are left out
  const std::string below = states.empty() ? std::string() : '\n' + StateLines(states, look);
  const std::size_t taken = states.empty() ? 0 : states.size() + 1;
  const std::size_t most = rows == 0 ? 0 : std::max(rows, taken + frame + 1) - taken - frame;
  const auto [instances, more] = CollectInstances(watcher, most);
  ShortIds ids(wide || look.width == 0);
  for (const auto& id : watcher.ListInstances()) ids.Add(id);  // also those that are left out
  std::string text = InstanceTable(instances, ids, look, std::chrono::system_clock::now());
  if (more != 0) text += fmt::format("… {} more\n", more);
  return text + below;
}

}  // namespace

void ListInstances(const ListOptions& options, LineWriter& output) {
  const auto picture = [&options](const GlobalServiceWatcher& watcher, const Look& look, std::size_t rows) {
    const auto states = options.quiet ? std::vector<DataCenterStatus>() : watcher.Status();
    if (!options.json) return Tables(watcher, states, options.wide, look, rows);
    return Objects(CollectInstances(watcher, 0).instances, states);
  };
  View(options, picture, output);
}

}  // namespace zr::halden::tool
