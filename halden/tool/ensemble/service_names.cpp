// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "ensemble/service_names.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <vector>

#include "ensemble/ensemble_reader.h"
#include "model/layout.h"
#include "render/text.h"

namespace zr::halden::tool {

std::vector<std::string> ReadServiceNames(const DataCenterEnsembleMapT& ensembles, LineWriter& output) {
  using Names = std::vector<std::string>;
  constexpr std::chrono::seconds patience{5};  // far away it takes three round trips
  const auto all = InEachDataCenter<Names>(ensembles, patience, output, [](EnsembleReader& reader) {
    return reader.Ask({details::Request::Kind::GetChildren, zr::String(details::kServicesPath)}).children;
  });
  Names names;
  if (!all) return names;
  for (const auto& part : *all) names.insert(names.end(), part.begin(), part.end());
  return names;
}

std::string NobodyPublishes(const DataCenterEnsembleMapT& ensembles, const std::string& service,
                            LineWriter& output) {
  const auto names = ReadServiceNames(ensembles, output);
  // Its node may stay for a while after its last instance.
  const bool wasThere = std::find(names.begin(), names.end(), service) != names.end();
  if (wasThere) return fmt::format("'{}' has no instance at present", service);
  return fmt::format("nobody publishes '{}'{}", service, DidYouMean(service, names));
}

}  // namespace zr::halden::tool
