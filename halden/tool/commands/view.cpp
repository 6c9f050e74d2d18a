// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "commands/view.h"

#include <fmt/format.h>

#include <algorithm>
#include <future>

#include "commands/hints.h"
#include "commands/progress.h"
#include "ensemble/configuration.h"
#include "ensemble/ensemble_reader.h"
#include "ensemble/reachability.h"
#include "ensemble/service_names.h"
#include "io/failure.h"
#include "io/live_screen.h"
#include "render/state_text.h"

namespace zr::halden::tool {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

std::optional<MassRemovalGuard> GuardFor(const std::optional<std::chrono::milliseconds>& gracePeriod) {
  if (!gracePeriod) return std::nullopt;
  MassRemovalGuard guard;
  guard.gracePeriod = *gracePeriod;
  return guard;
}

void Connect(GlobalServiceWatcher& watcher, const DataCenterEnsembleMapT& ensembles) {
  for (const auto& [name, ensemble] : ensembles) watcher.ConnectDC(name);
}

bool AwaitInstances(const GlobalServiceWatcher& watcher, const CommonOptions& options, LineWriter& output) {
  constexpr milliseconds most{100};  // how late a stop is noticed
  const auto deadline = steady_clock::now() + options.Patience();
  const bool logged = options.logLevel < logging::ZRLOG_ERROR;  // whose lines would mix with it
  Progress progress(options.quiet || logged);
  while (!output.AwaitEnd(milliseconds(0))) {
    const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
    if (watcher.AwaitSynchronized(std::clamp(left, milliseconds(0), most)) || left <= most) return true;
    progress.Show(watcher.Status());
  }
  return false;
}

std::string Unread(const std::vector<DataCenterStatus>& states, const DataCenterEnsembleMapT& ensembles,
                   std::chrono::milliseconds patience, const std::string& toTry) {
  std::vector<std::future<std::string>> lines;
  for (const auto& state : states) {
    if (IsRead(state)) continue;
    lines.push_back(std::async(std::launch::async, [&] {
      return fmt::format("{}: not read completely within {}: {}\n", state.name, SecondsText(patience),
                         WhyUnread(state, ensembles.at(state.name)));
    }));
  }
  std::string text;
  for (auto& line : lines) text += line.get();
  return text.empty() ? text : text + toTry;
}

std::string Refused(const std::vector<DataCenterStatus>& states, const std::string& toTry) {
  std::string text;
  for (const auto& state : states) {
    if (!IsRead(state) || state.watcher.lastError != ZNOAUTH) continue;
    text += state.name + ": some of its nodes may not be read\n";
  }
  return text.empty() ? text : text + toTry;
}

bool IsEmpty(const std::vector<DataCenterStatus>& states) {
  return std::all_of(states.begin(), states.end(), [](const DataCenterStatus& state) {
    return state.watcher.freshness == Freshness::Live && state.watcher.instances == 0 &&
           state.watcher.quarantined == 0 && state.watcher.lastError != ZNOAUTH;
  });
}

namespace {

void ShowLive(GlobalServiceWatcher& watcher, const DataCenterEnsembleMapT& ensembles, const Picture& picture,
              LineWriter& output) {
  LiveScreen screen(output);  // before there are threads
  Connect(watcher, ensembles);
  screen.Run([&](const Look& look, std::size_t rows) { return picture(watcher, look, rows); });
}

/// What has not been read in time, or may not be.
std::string ShowOnce(GlobalServiceWatcher& watcher, const DataCenterEnsembleMapT& ensembles,
                     const ViewOptions& options, const Picture& picture, LineWriter& output) {
  Connect(watcher, ensembles);
  if (!AwaitInstances(watcher, options, output)) return {};
  const auto states = watcher.Status();
  const auto toTry = DoctorHint(options, options.service);
  std::string unread = Unread(states, ensembles, options.Patience(), toTry);
  if (unread.empty()) unread = Refused(states, toTry);
  output.Write(picture(watcher, LookOf(output.Descriptor()), 0));
  if (!options.quiet && IsEmpty(watcher.Status()))
    Complain(NobodyPublishes(ensembles, options.service, output));
  return unread;
}

}  // namespace

void View(const ViewOptions& options, const Picture& picture, LineWriter& output) {
  const auto ensembles = LoadEnsembles(options.configPath, options.quiet, options.dataCenters);
  GlobalServiceWatcher watcher(options.service, LibraryManaged{options.configPath});
  watcher.SetMassRemovalGuard(GuardFor(options.guard));
  if (!options.snapshots.empty()) watcher.SetSnapshotFolder(options.snapshots);
  if (options.live) {
    ShowLive(watcher, ensembles, picture, output);
    watcher.Close(kReadersClosingLimit);
    return;
  }
  const std::string unread = ShowOnce(watcher, ensembles, options, picture, output);
  watcher.Close(kReadersClosingLimit);
  output.ThrowIfFailed();
  if (!unread.empty()) throw Failure(kFailed, unread);
}

}  // namespace zr::halden::tool
