// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "commands/commands.h"
#include "commands/hints.h"
#include "ensemble/catalogue.h"
#include "ensemble/configuration.h"
#include "ensemble/ensemble_reader.h"
#include "io/failure.h"
#include "io/terminal.h"
#include "render/json.h"
#include "render/listing.h"

namespace zr::halden::tool {

void ListServices(const ServicesOptions& options, LineWriter& output) {
  const auto ensembles = LoadEnsembles(options.configPath, options.quiet, options.dataCenters);
  const auto all = InEachDataCenter<Catalogue>(
      ensembles, options.Patience(), output,
      [&](EnsembleReader& reader) { return ReadCatalogue(reader, options.Patience()); });
  if (!all) return;
  std::vector<ServiceCount> services;
  std::string troubles;
  for (const auto& [part, trouble] : *all) {
    services.insert(services.end(), part.begin(), part.end());
    if (!trouble.empty()) troubles += trouble + '\n';
  }
  if (!troubles.empty()) troubles += DoctorHint(options, "SERVICE");
  std::sort(services.begin(), services.end(), [](const ServiceCount& a, const ServiceCount& b) {
    return std::tie(a.name, a.dataCenter) < std::tie(b.name, b.dataCenter);
  });
  std::string text;
  if (!options.json) text = ServiceTable(services, LookOf(output.Descriptor()));
  if (options.json) {
    for (const auto& service : services) text += ServiceLine(service);
  }
  output.Write(text);
  output.ThrowIfFailed();
  if (!troubles.empty()) throw Failure(kFailed, troubles);
}

}  // namespace zr::halden::tool
