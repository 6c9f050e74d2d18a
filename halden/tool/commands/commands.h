// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include "cli/options.h"
#include "io/line_writer.h"

/// The subcommands. Each runs until it is done, `output` wants no more, or a stop is asked for.
/// Errors: Failure and ZooError.
namespace zr::halden::tool {

void WatchService(const WatchOptions& options, LineWriter& output);
void ListInstances(const ListOptions& options, LineWriter& output);
void ShowStatus(const StatusOptions& options, LineWriter& output);
void ShowInstance(const GetOptions& options, LineWriter& output);
void ListServices(const ServicesOptions& options, LineWriter& output);
void DiagnoseEnsembles(const DoctorOptions& options, LineWriter& output);
void CheckConfiguration(const ConfigCheckOptions& options, LineWriter& output);
void PublishInstances(const PublishOptions& options, LineWriter& output);
void OfferNames(const CompleteOptions& options, LineWriter& output);
/// `stop` becomes readable when the process is to end.
void Serve(const ServeOptions& options, LineWriter& output, int stop);

}  // namespace zr::halden::tool
