// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "commands.h"
#include "ensemble_reader.h"
#include "failure.h"
#include "json.h"
#include "layout.h"
#include "terminal.h"
#include "zrstl/utf8.h"

namespace zr::halden::tool {

namespace {

using details::Request;

constexpr std::size_t kLeastName = 12;  // columns of a name that is cut

struct Catalogue {
  std::vector<ServiceCount> services;
  std::string trouble;  // why it is not complete
};

std::string Trouble(const EnsembleReader& reader, int code, const ServicesOptions& options) {
  const bool late = code == ZOPERATIONTIMEOUT;
  return reader.DataCenter() + ": " +
         (late ? WhyUnread(reader.Status(), options.Patience()) : std::string(zerror(code)));
}

/// The partitions' own counts: instances are not listed for their number.
Catalogue ReadCatalogue(EnsembleReader& reader, const ServicesOptions& options) {
  const auto names = reader.Ask({Request::Kind::GetChildren, zr::String(details::kServicesPath)});
  if (names.code == ZNONODE) return {};  // nobody has published here yet
  if (names.code != ZOK) return {{}, Trouble(reader, names.code, options)};
  std::vector<Question> questions;
  for (const auto& name : names.children) {
    questions.push_back({Request::Kind::GetChildren, details::ServicePath(name)});
  }
  const auto partitions = reader.Ask(questions);
  questions.clear();
  std::vector<std::size_t> owners;
  Catalogue catalogue;
  for (std::size_t i = 0; i < partitions.size(); ++i) {
    catalogue.services.push_back({reader.DataCenter(), names.children[i], 0});
    for (const auto& partition : partitions[i].children) {
      if (!details::ParsePartition(partition)) continue;
      questions.push_back({Request::Kind::Exists, details::ServicePath(names.children[i]) + '/' + partition});
      owners.push_back(i);
    }
    const int code = partitions[i].code;
    if (code != ZOK && code != ZNONODE) catalogue.trouble = Trouble(reader, code, options);
  }
  const auto counts = reader.Ask(questions);
  for (std::size_t i = 0; i < counts.size(); ++i) {
    const int code = counts[i].code;
    if (code == ZOK)
      catalogue.services[owners[i]].instances += static_cast<std::size_t>(counts[i].stat.numChildren);
    if (code != ZOK && code != ZNONODE) catalogue.trouble = Trouble(reader, code, options);
  }
  return catalogue;
}

std::string ServiceTable(const std::vector<ServiceCount>& services, const Look& look) {
  Table table({{"SERVICE", kLeastName}, {"DC", kLeastName}, {"INSTANCES", 0, true}});
  for (const auto& [dataCenter, name, instances] : services) {
    table.AddRow({{EscapeControls(name)},
                  {EscapeControls(dataCenter)},
                  {std::to_string(instances), instances == 0 ? Tone::Faint : Tone::Plain}});
  }
  return table.Text(look);
}

}  // namespace

void Do(const ServicesOptions& options, LineWriter& output) {
  const auto ensembles = LoadEnsembles(options.configPath, options.quiet);
  const auto all =
      InEachDataCenter<Catalogue>(ensembles, options.Patience(), output,
                                  [&](EnsembleReader& reader) { return ReadCatalogue(reader, options); });
  if (!all) return;
  std::vector<ServiceCount> services;
  std::string troubles;
  for (const auto& [part, trouble] : *all) {
    services.insert(services.end(), part.begin(), part.end());
    if (!trouble.empty()) troubles += (troubles.empty() ? "" : "\n") + trouble;
  }
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
