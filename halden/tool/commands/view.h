// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "cli/options.h"
#include "halden/global_service_watcher.h"
#include "halden/utils.h"
#include "io/line_writer.h"
#include "io/terminal.h"

/// What the commands share that follow a service.
namespace zr::halden::tool {

std::optional<MassRemovalGuard> GuardFor(const std::optional<std::chrono::milliseconds>& gracePeriod);

/// Connects these of the configured data centres.
void Connect(GlobalServiceWatcher& watcher, const DataCenterEnsembleMapT& ensembles);

/// Waits until every data centre has been read, showing progress. False when there is a reason to end before
/// that and before the time is up.
bool AwaitInstances(const GlobalServiceWatcher& watcher, const CommonOptions& options, LineWriter& output);

/// A line for each data centre that has not been read within `patience`, with what is in the way, and what to try; empty
/// when all were read. Waits up to a second for what can be found out.
std::string Unread(const std::vector<DataCenterStatus>& states, const DataCenterEnsembleMapT& ensembles,
                   std::chrono::milliseconds patience, const std::string& toTry);

/// A line for each data centre that was read, but for nodes that may not be, and what to try; else empty.
std::string Refused(const std::vector<DataCenterStatus>& states, const std::string& toTry);

/// That every data centre has been read and nobody has an instance there, readable or not.
bool IsEmpty(const std::vector<DataCenterStatus>& states);

/// The text to show, for at most so many lines (0: no limit).
using Picture = std::function<std::string(const GlobalServiceWatcher&, const Look&, std::size_t)>;

/// Shows the service once, when it has been read, or live. Throws Failure when a data centre could not be
/// read.
void View(const ViewOptions& options, const Picture& picture, LineWriter& output);

}  // namespace zr::halden::tool
