// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "support/zookeeper_server.h"

namespace zr::halden::test {

/// A real ensemble of servers, which elect a leader among themselves; of one, which stands alone. Threads and
/// errors as ZooKeeperServer.
class ZooKeeperEnsemble {
 public:
  explicit ZooKeeperEnsemble(std::size_t size, const ZooKeeperServerOptions& options = {});

  /// Starts those that are down; returns once all serve.
  void Start();

  /// The leader's index; waits until there is one.
  std::size_t Leader() const;
  /// One of them. It serves only as one of a quorum: without one, `Launch` it.
  ZooKeeperServer& Server(std::size_t i) { return *m_servers.at(i); }
  std::size_t Size() const { return m_servers.size(); }

  /// "127.0.0.1:<port>,127.0.0.1:<port>,...<chroot>"
  std::string ConnectString(const std::string& chroot = {}) const;

 private:
  std::deque<HeldPort> m_quorumPorts;  // two for each: to follow the leader, to elect it
  std::vector<std::unique_ptr<ZooKeeperServer>> m_servers;
};

}  // namespace zr::halden::test
