// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <string>
#include <utility>

#include "halden/testing/zookeeper_client.h"
#include "support/await.h"
#include "zrstl/string.h"

namespace zr::halden::test {

using InstanceKey = std::pair<zr::String, ServiceId>;  ///< data centre and instance
/// Hosts of instances; empty where the node does not decode, so that its last good value counts, or none.
using View = std::map<InstanceKey, std::string>;

/// Adds what a client of its own reads.
inline void ReadInto(View& truth, ZooKeeperClient& client, const zr::String& dcName,
                     const std::string& service) {
  for (const auto& [id, bytes] : client.ReadInstances(service)) {
    const auto data = DecodeInstance(bytes);
    truth[{dcName, id}] = data ? data->host() : "";
  }
}

/// What is wrong with the view of `whom`; empty for nothing.
inline std::string Difference(const std::string& whom, View view, const View& truth) {
  std::string text;
  for (const auto& [key, host] : truth) {
    const auto seen = view.extract(key);
    if (!host.empty() && (!seen || seen.mapped() != host))
      text += "; " + whom + (seen ? " has another " : " lacks ") + key.first + "/" + ToString(key.second);
  }
  for (const auto& [key, host] : view)
    text += "; " + whom + " still has " + key.first + "/" + ToString(key.second);
  return text;
}

}  // namespace zr::halden::test
