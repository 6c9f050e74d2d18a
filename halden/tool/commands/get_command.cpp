// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "commands/commands.h"
#include "commands/hints.h"
#include "ensemble/configuration.h"
#include "ensemble/ensemble_reader.h"
#include "ensemble/instance_ids.h"
#include "ensemble/node_facts.h"
#include "ensemble/service_names.h"
#include "io/failure.h"
#include "io/terminal.h"
#include "model/layout.h"
#include "render/json.h"
#include "render/node_text.h"
#include "render/text.h"

namespace zr::halden::tool {

namespace {

struct Found {
  std::set<ServiceId> ids;  // that begin as asked
  std::optional<NodeFacts> facts;
  std::string trouble;  // why not all is known here
};

Found ReadNode(EnsembleReader& reader, const GetOptions& options) {
  const auto [ids, code] = FindIds(reader, options.service, options.id);
  Found found{{ids.begin(), ids.end()}, {}, {}};
  if (code != ZOK) found.trouble = TroubleOf(reader, code, options.Patience());
  if (found.ids.size() != 1) return found;
  const ServiceId& id = *found.ids.begin();
  const zr::String path = details::InstancePath(details::ServicePath(options.service), id);
  const auto reply = reader.Ask({details::Request::Kind::Get, path});
  if (reply.code == ZOK) {
    found.facts = ReadNodeFacts(reader.DataCenter(), id, path, reply.value, reply.stat);
  } else if (reply.code != ZNONODE) {
    found.trouble = TroubleOf(reader, reply.code, options.Patience());
    if (reply.code == ZNOAUTH) found.trouble += ": " + path + " may not be read";
  }
  return found;
}

/// Refuses what several ids begin with: which one is meant?
void RequireOne(const std::vector<Found>& all, const GetOptions& options) {
  constexpr std::size_t most = 5;
  std::set<ServiceId> ids;
  for (const auto& found : all) ids.insert(found.ids.begin(), found.ids.end());
  if (ids.size() <= 1) return;
  std::string text =
      fmt::format("{} instances of {} begin with '{}':", ids.size(), options.service, options.id);
  std::size_t told = 0;
  for (const auto& id : ids) {
    if (told++ == most) break;
    text += '\n' + halden::ToString(id);
  }
  throw Failure(kFailed, ids.size() > most ? text + "\n..." : text);
}

std::string NotFound(const DataCenterEnsembleMapT& ensembles, const GetOptions& options, LineWriter& output) {
  const auto names = ReadServiceNames(ensembles, output);
  const bool known = std::find(names.begin(), names.end(), options.service) != names.end();
  return fmt::format("no data centre has instance {} of {}{}", options.id, options.service,
                     known ? std::string() : DidYouMean(options.service, names));
}

}  // namespace

void ShowInstance(const GetOptions& options, LineWriter& output) {
  const auto ensembles = LoadEnsembles(options.configPath, options.quiet, options.dataCenters);
  const auto all = InEachDataCenter<Found>(ensembles, options.Patience(), output,
                                           [&](EnsembleReader& reader) { return ReadNode(reader, options); });
  if (!all) return;
  RequireOne(*all, options);
  const Look look = LookOf(output.Descriptor());
  const auto now = std::chrono::system_clock::now();
  std::string text;
  std::string troubles;
  for (const auto& [ids, facts, trouble] : *all) {
    if (facts && !options.json && !text.empty()) text += '\n';
    if (facts) text += options.json ? NodeLine(*facts) : NodeText(*facts, look, now);
    if (!trouble.empty()) troubles += trouble + '\n';
  }
  if (!troubles.empty()) troubles += DoctorHint(options, options.service);
  output.Write(text);
  if (text.empty() && troubles.empty()) troubles = NotFound(ensembles, options, output);
  output.ThrowIfFailed();
  if (!troubles.empty()) throw Failure(kFailed, troubles);
}

}  // namespace zr::halden::tool
