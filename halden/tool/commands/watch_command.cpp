// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "commands/commands.h"
#include "commands/hints.h"
#include "commands/view.h"
#include "ensemble/configuration.h"
#include "ensemble/ensemble_reader.h"
#include "ensemble/service_names.h"
#include "halden/global_service_watcher.h"
#include "io/failure.h"
#include "io/terminal.h"
#include "render/event_format.h"
#include "render/instance_text.h"
#include "render/state_text.h"
#include "render/text.h"
#include "zrstl/utf8.h"

namespace zr::halden::tool {

namespace {

/// Prints each event on the thread that brings it: a slow terminal then slows down the delivery, which merges
/// what it could not deliver, instead of filling a queue here.
class EventPrinter final : public ServiceWatcherObserver {
 public:
  EventPrinter(const EventFormat& format, bool wholeIds, LineWriter& output)
      : m_format(format), m_output(output), m_ids(wholeIds) {}

  void OnInstanceAdded(ServiceWatcher& watcher, const ServiceId& instance,
                       const ServiceInstanceData& data) override {
    Print(watcher, InstanceChange::Added, instance, &data);
  }
  void OnInstanceModified(ServiceWatcher& watcher, const ServiceId& instance,
                          const ServiceInstanceData& data) override {
    Print(watcher, InstanceChange::Modified, instance, &data);
  }
  void OnInstanceRemoved(ServiceWatcher& watcher, const ServiceId& instance) override {
    Print(watcher, InstanceChange::Removed, instance, nullptr);
  }

 private:
  void Print(const ServiceWatcher& watcher, InstanceChange change, const ServiceId& id,
             const ServiceInstanceData* data) {
    const auto now = std::chrono::system_clock::now();
    m_output.Write(m_format.Event(now, watcher.DataCenterName(), change, id, ShortIdOf(id), data));
  }

  /// Data centres tell of their events concurrently.
  std::string ShortIdOf(const ServiceId& id) {
    const std::lock_guard lock(m_mtx);
    m_ids.Add(id);
    return m_ids.Text(id);
  }

  const EventFormat m_format;
  LineWriter& m_output;
  std::mutex m_mtx;  // guards the one below
  ShortIds m_ids;
};

std::size_t WidestName(const DataCenterEnsembleMapT& ensembles) {
  std::size_t width = 0;
  for (const auto& [name, ensemble] : ensembles) width = std::max(width, Width(EscapeControls(name)));
  return width;
}

/// Prints a data centre's state when it has become another one, and not when it is only counted anew.
/// Threads: data centres tell of their states concurrently, each of its own in order.
class StatePrinter {
 public:
  StatePrinter(const EventFormat& format, LineWriter& output) : m_format(format), m_output(output) {}

  void Print(const DataCenterStatus& status) {
    const auto now = std::chrono::system_clock::now();
    if (IsNews(status)) m_output.Write(m_format.State(now, status));
  }

 private:
  bool IsNews(const DataCenterStatus& status) {
    std::pair<std::string, bool> state{Condition(status), status.watcher.held != 0};
    const std::lock_guard lock(m_mtx);
    auto& said = m_said[status.name];
    if (said == state) return false;
    said = std::move(state);
    return true;
  }

  const EventFormat m_format;
  LineWriter& m_output;
  std::mutex m_mtx;  // guards the one below
  std::map<std::string, std::pair<std::string, bool>> m_said;
};

/// Follows the first read, whose progress the events show. What has not been read when the time that was given is up.
std::string FollowFirstRead(const GlobalServiceWatcher& watcher, const DataCenterEnsembleMapT& ensembles,
                            const WatchOptions& options, LineWriter& output) {
  constexpr std::chrono::milliseconds interval{100};
  constexpr std::chrono::seconds usual{5};
  const std::string toTry = DoctorHint(options, options.service);
  const auto begin = std::chrono::steady_clock::now();
  bool told = options.quiet;
  do {
    if (watcher.AwaitSynchronized(std::chrono::milliseconds(0))) {
      if (!options.quiet && IsEmpty(watcher.Status()))
        Complain(NobodyPublishes(ensembles, options.service, output));
      return {};
    }
    const auto elapsed = std::chrono::steady_clock::now() - begin;
    if (options.timeout && elapsed >= *options.timeout)
      return Unread(watcher.Status(), ensembles, *options.timeout, toTry);
    if (elapsed >= usual && !std::exchange(told, true))
      Complain(Unread(watcher.Status(), ensembles, usual, toTry));
  } while (!output.AwaitEnd(interval));
  return {};
}

}  // namespace

void WatchService(const WatchOptions& options, LineWriter& output) {
  constexpr std::chrono::hours longTime{1};
  const auto ensembles = LoadEnsembles(options.configPath, options.quiet, options.dataCenters);
  const Look look = LookOf(output.Descriptor());
  const EventFormat format(options.json, WidestName(ensembles), look);
  GlobalServiceWatcher watcher(options.service, LibraryManaged{options.configPath});
  watcher.SetMassRemovalGuard(GuardFor(options.guard));
  if (!options.snapshots.empty()) watcher.SetSnapshotFolder(options.snapshots);
  watcher.RegisterShared(std::make_shared<EventPrinter>(format, options.wide || look.width == 0, output));
  if (!options.quiet) {
    const auto states = std::make_shared<StatePrinter>(format, output);
    watcher.SetStatusHandler([states](const DataCenterStatus& status) { states->Print(status); });
  }
  Connect(watcher, ensembles);
  const std::string unread = FollowFirstRead(watcher, ensembles, options, output);
  while (unread.empty() && !output.AwaitEnd(longTime)) {
  }
  watcher.SetStatusHandler({});         // that it stops is no news
  watcher.Close(kReadersClosingLimit);  // before anything is thrown: callbacks write to the output
  if (!unread.empty()) throw Failure(kFailed, unread);
}

}  // namespace zr::halden::tool
