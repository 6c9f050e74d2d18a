// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "halden/connection_v2.h"
#include "zrstl/string.h"

namespace zr::halden::details {

/// Who is told of events at which nodes: a context is told of all at its root and below. The client library
/// is given one and the same pointer for all watches, so that it keeps one for each node, however many want
/// it, and a reconnect takes as long as there are nodes.
class WatchRoutes {
 public:
  using ContextPtr = std::shared_ptr<Connection::WatchContext>;

  void Add(const zr::String& root, const ContextPtr& context) { m_routes[root].push_back(context); }
  /// True when nobody is left at this root.
  bool Remove(const zr::String& root, const ContextPtr& context);
  std::vector<ContextPtr> Find(std::string_view path) const;

  std::size_t unused = 0;  ///< about: of the current epoch's watches, those that nobody wants any more

 private:
  std::unordered_map<zr::String, std::vector<std::weak_ptr<Connection::WatchContext>>> m_routes;
};

}  // namespace zr::halden::details
