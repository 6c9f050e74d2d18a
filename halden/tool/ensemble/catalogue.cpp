// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "ensemble/catalogue.h"

#include <utility>

#include "model/layout.h"

namespace zr::halden::tool {

/// The partitions' own counts: instances are not listed for their number.
Catalogue ReadCatalogue(EnsembleReader& reader, std::chrono::seconds patience) {
  const auto names = reader.Ask({details::Request::Kind::GetChildren, zr::String(details::kServicesPath)});
  if (names.code == ZNONODE) return {};  // nobody has published here yet
  if (names.code != ZOK) return {{}, TroubleOf(reader, names.code, patience)};
  std::vector<Question> questions;
  for (const auto& name : names.children) {
    questions.push_back({details::Request::Kind::GetChildren, details::ServicePath(name)});
  }
  const auto partitions = reader.Ask(questions);
  questions.clear();
  std::vector<std::size_t> owners;
  Catalogue catalogue;
  for (std::size_t i = 0; i < partitions.size(); ++i) {
    catalogue.services.push_back({reader.DataCenter(), names.children[i], 0});
    for (const auto& partition : partitions[i].children) {
      if (!details::ParsePartition(partition)) continue;
      questions.push_back(
          {details::Request::Kind::Exists, details::ServicePath(names.children[i]) + '/' + partition});
      owners.push_back(i);
    }
    const int code = partitions[i].code;
    if (code != ZOK && code != ZNONODE) catalogue.trouble = TroubleOf(reader, code, patience);
  }
  const auto counts = reader.Ask(questions);
  for (std::size_t i = 0; i < counts.size(); ++i) {
    const int code = counts[i].code;
    if (code == ZOK)
      catalogue.services[owners[i]].instances += static_cast<std::size_t>(counts[i].stat.numChildren);
    if (code != ZOK && code != ZNONODE) catalogue.trouble = TroubleOf(reader, code, patience);
  }
  return catalogue;
}

}  // namespace zr::halden::tool
