// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <string>

#include "halden/utils.h"
#include "line_writer.h"
#include "options.h"

namespace zr::halden::tool {

/// How long a command that ends waits for sessions to close; past it the servers end them by themselves. One
/// that only reads leaves nothing behind but the session.
inline constexpr std::chrono::seconds kClosingLimit{3};
inline constexpr std::chrono::seconds kReadersClosingLimit{1};

/// The ensembles of the configuration file. Throws Failure for a file with faults: to act on the rest of it
/// would look as if a data centre had no instances. Warnings go to stderr, unless `quiet`.
DataCenterEnsembleMapT LoadEnsembles(const std::string& path, bool quiet);

/// A configuration file to start from, in order as it is.
std::string ConfigExample();

// Each command runs until it is done, `output` wants no more, or a stop is asked for. They throw Failure and
// ZooError.
void Do(const WatchOptions& options, LineWriter& output);
void Do(const ListOptions& options, LineWriter& output);
void Do(const StatusOptions& options, LineWriter& output);
void Do(const GetOptions& options, LineWriter& output);
void Do(const ServicesOptions& options, LineWriter& output);
void Do(const DoctorOptions& options, LineWriter& output);
void Do(const ConfigCheckOptions& options, LineWriter& output);
void Do(const PublishOptions& options, LineWriter& output);

}  // namespace zr::halden::tool
