// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "ensemble/node_facts.h"

#include <utility>

#include "model/node_codec.h"

namespace zr::halden::tool {

NodeFacts ReadNodeFacts(std::string dataCenter, const ServiceId& id, std::string path, std::string_view bytes,
                        const Stat& stat) {
  NodeFacts facts{std::move(dataCenter),
                  id,
                  std::move(path),
                  {},
                  {},
                  {},
                  {},
                  bytes.size(),
                  stat.ctime,
                  stat.mtime,
                  stat.version,
                  stat.ephemeralOwner};
  const auto decoded = details::DecodeNode(bytes);
  if (decoded.payload) facts.data = details::ParsePayload(*decoded.payload);
  facts.error = decoded.error;
  messaging::halden::ZNodeData envelope;
  if (details::ParseEnvelope(bytes, envelope)) {  // of a payload that nobody can read, too
    facts.compressed = envelope.compression() != messaging::halden::ZNodeData::COMP_NONE;
    if (envelope.has_user()) facts.writer = envelope.user();
  }
  return facts;
}

}  // namespace zr::halden::tool
