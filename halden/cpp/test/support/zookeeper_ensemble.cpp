// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "support/zookeeper_ensemble.h"

#include <algorithm>
#include <stdexcept>

#include "support/await.h"

namespace zr::halden::test {

ZooKeeperEnsemble::ZooKeeperEnsemble(std::size_t size, const ZooKeeperServerOptions& options) {
  ZooKeeperServerOptions member = options;
  for (std::size_t i = 1; i <= size && size > 1; ++i) {
    const auto toFollow = std::to_string(m_quorumPorts.emplace_back().Number());
    const auto toElect = std::to_string(m_quorumPorts.emplace_back().Number());
    member.quorum.push_back("server." + std::to_string(i) + "=127.0.0.1:" + toFollow + ":" + toElect);
  }
  for (std::size_t i = 1; i <= size; ++i) {
    member.id = size > 1 ? static_cast<int>(i) : 0;
    m_servers.push_back(std::make_unique<ZooKeeperServer>(member));
  }
}

void ZooKeeperEnsemble::Start() {
  for (const auto& server : m_servers) server->Launch();
  for (const auto& server : m_servers) server->Start();
}

std::size_t ZooKeeperEnsemble::Leader() const {
  auto leader = m_servers.end();
  const bool found = Poll(kLimit, [&] {
    leader = std::find_if(m_servers.begin(), m_servers.end(),
                          [](const auto& server) { return server->Mode() == "leader"; });
    return leader != m_servers.end();
  });
  if (!found) throw std::runtime_error("the ensemble has no leader");
  return static_cast<std::size_t>(leader - m_servers.begin());
}

std::string ZooKeeperEnsemble::ConnectString(const std::string& chroot) const {
  std::string text;
  for (const auto& server : m_servers) text += (text.empty() ? "" : ",") + server->ConnectString();
  return text + chroot;
}

}  // namespace zr::halden::test
