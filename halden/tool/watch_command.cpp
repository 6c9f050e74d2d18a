// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "commands.h"
#include "halden/global_service_watcher.h"
#include "output.h"

namespace zr::halden::tool {

namespace {

/// Prints each event on the thread that brings it: a slow terminal then slows down the delivery, which merges
/// what it could not deliver, instead of filling a queue here.
class EventPrinter final : public ServiceWatcherObserver {
 public:
  EventPrinter(const EventFormat& format, LineWriter& output) : m_format(format), m_output(output) {}

  void OnInstanceAdded(ServiceWatcher& watcher, const ServiceId& instance,
                       const ServiceInstanceData& data) override {
    Print(watcher, Change::Added, instance, &data);
  }
  void OnInstanceModified(ServiceWatcher& watcher, const ServiceId& instance,
                          const ServiceInstanceData& data) override {
    Print(watcher, Change::Modified, instance, &data);
  }
  void OnInstanceRemoved(ServiceWatcher& watcher, const ServiceId& instance) override {
    Print(watcher, Change::Removed, instance, nullptr);
  }

 private:
  void Print(const ServiceWatcher& watcher, Change change, const ServiceId& id,
             const ServiceInstanceData* data) {
    const auto now = std::chrono::system_clock::now();
    m_output.Write(m_format.Event(now, watcher.DataCenterName(), change, id, data));
  }

  const EventFormat m_format;
  LineWriter& m_output;
};

std::size_t WidestName(const DataCenterEnsembleMapT& ensembles) {
  std::size_t width = 0;
  for (const auto& [name, ensemble] : ensembles) width = std::max(width, Width(EscapeControls(name)));
  return width;
}

/// What was last said of each data centre. Nobody tells when a state changes, so it is asked for.
class StatePrinter {
 public:
  StatePrinter(const EventFormat& format, LineWriter& output) : m_format(format), m_output(output) {}

  void PrintChanges(const GlobalServiceWatcher& watcher) {
    const auto now = std::chrono::system_clock::now();
    for (const auto& status : watcher.Status()) {
      const std::string_view condition = Condition(status);
      auto& said = m_said[status.name];
      if (said == condition) continue;
      said = condition;
      m_output.Write(m_format.State(now, status));
    }
  }

 private:
  const EventFormat m_format;
  LineWriter& m_output;
  std::map<std::string, std::string, std::less<>> m_said;
};

}  // namespace

void Watch(const WatchOptions& options, LineWriter& output) {
  constexpr std::chrono::milliseconds interval{200};
  const EventFormat format(options.json, WidestName(LoadEnsembles(options.configPath)));
  GlobalServiceWatcher watcher(options.service, LibraryManaged{options.configPath});
  watcher.RegisterShared(std::make_shared<EventPrinter>(format, output));
  watcher.StartManagedConnections();
  StatePrinter states(format, output);
  while (!output.AwaitEnd(interval)) states.PrintChanges(watcher);
  watcher.Close(kClosingLimit);
}

}  // namespace zr::halden::tool
