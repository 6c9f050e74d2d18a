// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "commands/commands.h"
#include "ensemble/configuration.h"
#include "ensemble/diagnosis.h"
#include "ensemble/ensemble_reader.h"
#include "ensemble/examination.h"
#include "halden/zookeeper_config.h"
#include "io/failure.h"
#include "io/terminal.h"
#include "render/findings.h"
#include "render/json.h"

namespace zr::halden::tool {

void DiagnoseEnsembles(const DoctorOptions& options, LineWriter& output) {
  ZooKeeperConfig config = ReadZooKeeperConfig(options.configPath);
  std::vector<Check> checks = DiagnoseConfig(config, options.configPath);
  // Where there are faults the data centre may be there, but not in order.
  if (config.faults.empty()) KeepOnly(config.ensembles, options.dataCenters, options.configPath);
  const auto all = InEachDataCenter<EnsembleFacts>(
      config.ensembles, options.Patience(), output, [&](EnsembleReader& reader) {
        return Examine(reader, config.ensembles.at(reader.DataCenter()), options.service);
      });
  if (!all) return;
  for (const auto& facts : *all) {
    auto more = Diagnose(facts, options.service);
    std::move(more.begin(), more.end(), std::back_inserter(checks));
  }
  std::string text;
  if (!options.json) text = CheckText(checks, options.quiet, LookOf(output.Descriptor()));
  for (const auto& check : checks) {
    if (options.json && !(options.quiet && check.verdict == Verdict::Ok)) text += CheckLine(check);
  }
  output.Write(text);
  output.ThrowIfFailed();
  const bool failed = std::any_of(checks.begin(), checks.end(),
                                  [](const Check& check) { return check.verdict == Verdict::Failure; });
  if (failed) throw Failure(kFailed, "");
}

}  // namespace zr::halden::tool
