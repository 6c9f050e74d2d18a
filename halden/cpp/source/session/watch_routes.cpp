// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "session/watch_routes.h"

namespace zr::halden::details {

bool WatchRoutes::Remove(const zr::String& root, const ContextPtr& context) {
  const auto route = m_routes.find(root);
  if (route == m_routes.end()) return false;
  std::erase_if(route->second, [&](const auto& weak) { return weak.expired() || weak.lock() == context; });
  if (!route->second.empty()) return false;
  m_routes.erase(route);
  return true;
}

std::vector<WatchRoutes::ContextPtr> WatchRoutes::Find(std::string_view path) const {
  std::vector<ContextPtr> found;
  for (;;) {
    const auto route = m_routes.find(zr::String(path));
    for (std::size_t i = 0; route != m_routes.end() && i < route->second.size(); ++i) {
      if (auto context = route->second[i].lock()) found.push_back(std::move(context));
    }
    const auto slash = path.rfind('/');
    if (slash == std::string_view::npos || slash == 0) return found;
    path = path.substr(0, slash);
  }
}

}  // namespace zr::halden::details
