// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "ensemble/configuration.h"

#include <utility>

#include "halden/zookeeper_config.h"
#include "io/failure.h"

namespace zr::halden::tool {

DataCenterEnsembleMapT LoadEnsembles(const std::string& path, bool quiet) {
  ZooKeeperConfig config = ReadZooKeeperConfig(path);
  for (const auto& warning : config.warnings) {
    if (!quiet) Complain("warning: " + warning.Text());
  }
  for (const auto& fault : config.authFaults) Complain(fault.Text());
  std::string faults;
  for (const auto& fault : config.faults) faults += (faults.empty() ? "" : "\n") + fault.Text();
  if (!faults.empty()) throw Failure(kFailed, faults);
  if (config.ensembles.empty()) throw Failure(kFailed, path + ": no data centre");
  return std::move(config.ensembles);
}

}  // namespace zr::halden::tool
