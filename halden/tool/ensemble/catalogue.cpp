// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "ensemble/catalogue.h"

#include <fmt/format.h>

#include <map>
#include <set>
#include <utility>

#include "model/layout.h"

namespace zr::halden::tool {

namespace {

std::string Listed(const std::set<std::string>& names) {
  constexpr std::size_t most = 5;
  std::string text;
  std::size_t count = 0;
  for (const auto& name : names) {
    if (count++ < most) text += (text.empty() ? "" : ", ") + name;
  }
  return count <= most ? text : text + fmt::format(" and {} more", count - most);
}

/// What could not be read, and why: a line for each reason.
std::string Troubles(const EnsembleReader& reader, const std::map<int, std::set<std::string>>& services,
                     std::chrono::milliseconds patience) {
  std::string lines;
  for (const auto& [code, names] : services) {
    lines +=
        fmt::format("{}{}: {}", lines.empty() ? "" : "\n", TroubleOf(reader, code, patience), Listed(names));
  }
  return lines;
}

}  // namespace

/// The partitions' own counts: instances are not listed for their number.
Catalogue ReadCatalogue(EnsembleReader& reader, std::chrono::milliseconds patience) {
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
  std::map<int, std::set<std::string>> troubles;
  for (std::size_t i = 0; i < partitions.size(); ++i) {
    catalogue.services.push_back({reader.DataCenter(), names.children[i], 0});
    for (const auto& partition : partitions[i].children) {
      if (!details::ParsePartition(partition)) continue;
      questions.push_back(
          {details::Request::Kind::Exists, details::ServicePath(names.children[i]) + '/' + partition});
      owners.push_back(i);
    }
    const int code = partitions[i].code;
    if (code == ZOK || code == ZNONODE) continue;
    catalogue.services[i].instances.reset();
    troubles[code].insert(names.children[i]);
  }
  const auto counts = reader.Ask(questions);
  for (std::size_t i = 0; i < counts.size(); ++i) {
    const int code = counts[i].code;
    auto& service = catalogue.services[owners[i]];
    if (code == ZOK && service.instances) {
      *service.instances += static_cast<std::size_t>(counts[i].stat.numChildren);
    } else if (code != ZOK && code != ZNONODE) {
      service.instances.reset();
      troubles[code].insert(service.name);
    }
  }
  catalogue.trouble = Troubles(reader, troubles, patience);
  return catalogue;
}

}  // namespace zr::halden::tool
