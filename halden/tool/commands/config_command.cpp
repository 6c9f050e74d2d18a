// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <string>
#include <vector>

#include "agent/serve/serve_config.h"
#include "commands/commands.h"
#include "halden/zookeeper_config.h"
#include "io/failure.h"
#include "io/terminal.h"
#include "render/findings.h"
#include "render/json.h"
#include "render/text.h"
#include "zrstl/utf8.h"

namespace zr::halden::tool {

void CheckConfiguration(const ConfigCheckOptions& options, LineWriter& output) {
  ZooKeeperConfig config = ReadZooKeeperConfig(options.path);
  const agent::ServeConfig serve = agent::ReadServeConfig(options.path);
  config.faults.insert(config.faults.end(), serve.faults.begin(), serve.faults.end());
  config.warnings.insert(config.warnings.end(), serve.warnings.begin(), serve.warnings.end());
  const Look look = LookOf(output.Descriptor());
  std::string text;
  const auto add = [&](const std::vector<ConfigFault>& faults, bool isError) {
    for (const auto& fault : faults) {
      text += options.json ? FaultLine(fault, isError) : FaultText(fault, isError, look);
    }
  };
  add(config.faults, true);
  add(config.authFaults, true);
  if (!options.quiet) add(config.warnings, false);
  const bool empty = config.faults.empty() && config.ensembles.empty();
  if (empty) {
    ConfigFault fault;
    fault.file = options.path;
    fault.message = "no data centre: expected at least one in [data_centers]";
    add({fault}, true);
  }
  const bool good = config.faults.empty() && config.authFaults.empty() && !empty;
  if (good && !options.json && !options.quiet) {
    text += fmt::format("{}: in order, {}\n", EscapeControls(options.path),
                        Counted(config.ensembles.size(), "data centre"));
  }
  output.Write(text);
  output.ThrowIfFailed();
  if (!good) throw Failure(kFailed, "");
}

}  // namespace zr::halden::tool
