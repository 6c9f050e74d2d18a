// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "halden/testing/zookeeper_ensemble.h"

#include <algorithm>
#include <stdexcept>

#include "halden/testing/error.h"
#include "halden/testing/poll.h"

namespace zr::halden::testing {

ZooKeeperEnsemble::ZooKeeperEnsemble(std::size_t size, const ZooKeeperServerOptions& options) {
  if (size == 0) throw std::invalid_argument("an ensemble of no servers");
  std::vector<std::string> quorum;
  for (std::size_t i = 1; i <= size && size > 1; ++i) {
    std::string& line = quorum.emplace_back("server." + std::to_string(i) + "=127.0.0.1");
    for (int port = 0; port < 2; ++port) line += ":" + std::to_string(m_quorumPorts.emplace_back().Number());
  }
  for (std::size_t i = 1; i <= size; ++i) {
    m_servers.emplace_back(new ZooKeeperServer(options, size > 1 ? i : 0, quorum));
  }
}

void ZooKeeperEnsemble::Each(void (ZooKeeperServer::*verb)()) {
  for (const auto& server : m_servers) (*server.*verb)();
}

void ZooKeeperEnsemble::Start() {
  Each(&ZooKeeperServer::Launch);
  Each(&ZooKeeperServer::Thaw);  // all, before one is waited for: it may need the others
  Each(&ZooKeeperServer::Start);
}

void ZooKeeperEnsemble::Stop() {
  Each(&ZooKeeperServer::Stop);
}

void ZooKeeperEnsemble::Kill() {
  Each(&ZooKeeperServer::Kill);
}

void ZooKeeperEnsemble::Wipe() {
  Kill();
  Each(&ZooKeeperServer::Wipe);
}

void ZooKeeperEnsemble::Freeze() {
  Each(&ZooKeeperServer::Freeze);
}

void ZooKeeperEnsemble::Thaw() {
  Each(&ZooKeeperServer::Thaw);
}

std::size_t ZooKeeperEnsemble::Leader() const {
  auto leader = m_servers.end();
  const bool found = Poll(kLimit, [&] {
    leader = std::find_if(m_servers.begin(), m_servers.end(), [](const auto& server) {
      const std::string mode = server->Mode();
      return mode == "leader" || mode == "standalone";
    });
    return leader != m_servers.end();
  });
  if (!found) throw TestingError("the ensemble has no leader");
  return static_cast<std::size_t>(leader - m_servers.begin());
}

std::string ZooKeeperEnsemble::ConnectString(const std::string& chroot) const {
  std::string text;
  for (const auto& server : m_servers) text += (text.empty() ? "" : ",") + server->ConnectString();
  return text + chroot;
}

}  // namespace zr::halden::testing
