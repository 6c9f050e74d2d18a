// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <string>

#include "commands/commands.h"
#include "commands/hints.h"
#include "ensemble/configuration.h"
#include "ensemble/ensemble_reader.h"
#include "ensemble/node_facts.h"
#include "ensemble/service_names.h"
#include "io/failure.h"
#include "io/terminal.h"
#include "model/layout.h"
#include "render/json.h"
#include "render/node_text.h"
#include "render/similar.h"

namespace zr::halden::tool {

namespace {

struct Found {
  std::optional<NodeFacts> facts;
  std::string trouble;  // why nothing is known of it here
};

Found ReadNode(EnsembleReader& reader, const GetOptions& options) {
  const zr::String path = details::InstancePath(details::ServicePath(options.service), options.id);
  const auto reply = reader.Ask({details::Request::Kind::Get, path});
  if (reply.code == ZOK)
    return {ReadNodeFacts(reader.DataCenter(), options.id, path, reply.value, reply.stat), {}};
  if (reply.code == ZNONODE) return {};
  return {{}, TroubleOf(reader, reply.code, options.Patience())};
}

}  // namespace

void ShowInstance(const GetOptions& options, LineWriter& output) {
  const auto ensembles = LoadEnsembles(options.configPath, options.quiet);
  const auto all = InEachDataCenter<Found>(ensembles, options.Patience(), output,
                                           [&](EnsembleReader& reader) { return ReadNode(reader, options); });
  if (!all) return;
  const Look look = LookOf(output.Descriptor());
  const auto now = std::chrono::system_clock::now();
  std::string text;
  std::string troubles;
  for (const auto& [facts, trouble] : *all) {
    if (facts && !options.json && !text.empty()) text += '\n';
    if (facts) text += options.json ? NodeLine(*facts) : NodeText(*facts, look, now);
    if (!trouble.empty()) troubles += trouble + '\n';
  }
  if (!troubles.empty()) troubles += DoctorHint(options, options.service);
  output.Write(text);
  if (text.empty() && troubles.empty()) {
    troubles =
        fmt::format("no data centre has instance {} of {}", halden::ToString(options.id), options.service);
    const auto names = ReadServiceNames(ensembles, output);
    if (std::find(names.begin(), names.end(), options.service) == names.end())
      troubles += DidYouMean(options.service, names);
  }
  output.ThrowIfFailed();
  if (!troubles.empty()) throw Failure(kFailed, troubles);
}

}  // namespace zr::halden::tool
