// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <set>
#include <string>
#include <vector>

#include "commands/commands.h"
#include "ensemble/service_names.h"
#include "halden/zookeeper_config.h"
#include "zrstl/utf8.h"

namespace zr::halden::tool {

/// A name a line. Of a configuration with faults, what is in order: whoever completes a word is no place to tell of them.
void OfferNames(const CompleteOptions& options, LineWriter& output) {
  const auto ensembles = ReadZooKeeperConfig(options.configPath).ensembles;
  std::set<std::string> names;
  if (options.what == CompleteOptions::What::DataCenters) {
    for (const auto& [name, ensemble] : ensembles) names.insert(name);
  } else {
    for (auto& name : ReadServiceNames(ensembles, output)) names.insert(std::move(name));
  }
  std::string text;
  for (const auto& name : names) text += EscapeControls(name) + '\n';
  output.Write(text);
}

}  // namespace zr::halden::tool
