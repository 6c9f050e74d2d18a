// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "ensemble/instance_ids.h"

#include <fmt/format.h>

#include "model/layout.h"

namespace zr::halden::tool {

FoundIds FindIds(EnsembleReader& reader, const std::string& service, const std::string& prefix) {
  using Kind = details::Request::Kind;
  if (const auto whole = ParseServiceId(prefix)) return {{*whole}, 0};
  FoundIds found;
  const auto check = [&found](int code) {
    if (found.code == 0 && code != ZOK && code != ZNONODE) found.code = code;
  };
  const zr::String path = details::ServicePath(service);
  const auto partitions = reader.Ask({Kind::GetChildren, path});
  check(partitions.code);
  std::vector<Question> questions;
  for (const auto& name : partitions.children) {
    if (details::ParsePartition(name))
      questions.push_back({Kind::GetChildren, fmt::format("{}/{}", path, name)});
  }
  for (const auto& list : reader.Ask(questions)) {
    check(list.code);
    for (const auto& name : list.children) {
      const auto id = name.starts_with(prefix) ? ParseServiceId(name) : std::nullopt;
      if (id) found.ids.push_back(*id);
    }
  }
  return found;
}

}  // namespace zr::halden::tool
