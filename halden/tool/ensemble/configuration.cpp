// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "ensemble/configuration.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <utility>

#include "halden/zookeeper_config.h"
#include "io/failure.h"
#include "render/text.h"

namespace zr::halden::tool {

DataCenterEnsembleMapT LoadEnsembles(const std::string& path, bool quiet,
                                     const std::vector<std::string>& dataCenters) {
  ZooKeeperConfig config = ReadZooKeeperConfig(path);
  for (const auto& warning : config.warnings) {
    if (!quiet) Complain("warning: " + warning.Text());
  }
  for (const auto& fault : config.authFaults) Complain(fault.Text());
  std::string faults;
  for (const auto& fault : config.faults) faults += (faults.empty() ? "" : "\n") + fault.Text();
  if (!faults.empty()) throw Failure(kFailed, faults);
  if (config.ensembles.empty()) throw Failure(kFailed, path + ": no data centre");
  KeepOnly(config.ensembles, dataCenters, path);
  return std::move(config.ensembles);
}

void KeepOnly(DataCenterEnsembleMapT& ensembles, const std::vector<std::string>& dataCenters,
              const std::string& path) {
  if (dataCenters.empty()) return;
  std::vector<std::string> known;
  for (const auto& [name, ensemble] : ensembles) known.push_back(name);
  std::sort(known.begin(), known.end());
  for (const auto& name : dataCenters) {
    if (ensembles.contains(name)) continue;
    throw Failure(kWrongUsage, fmt::format("bad --dc '{}': {} has {}{}", name, path, fmt::join(known, ", "),
                                           DidYouMean(name, known)));
  }
  for (const auto& name : known) {
    const bool wanted = std::find(dataCenters.begin(), dataCenters.end(), name) != dataCenters.end();
    if (!wanted) ensembles.erase(name);
  }
}

}  // namespace zr::halden::tool
