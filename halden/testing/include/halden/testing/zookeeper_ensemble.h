// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "halden/testing/zookeeper_server.h"

namespace zr::halden::testing {

/// A real ensemble of servers, which elect a leader among themselves; of one, which stands alone. A data centre, for
/// whoever loses one: the verbs are those of ZooKeeperServer, for all of them.
///
/// Threads, ownership and errors as ZooKeeperServer. A connect string names all servers in the same order.
class ZR_EXPORT ZooKeeperEnsemble {
 public:
  /// `size`: 1 or more; std::invalid_argument for none. Nothing is started.
  explicit ZooKeeperEnsemble(std::size_t size, const ZooKeeperServerOptions& options = {});

  void Start();   ///< those that are down or frozen; returns once all serve
  void Stop();    ///< one after the other, in order
  void Kill();    ///< all at once, as a power cut
  void Wipe();    ///< Kill, and all that they stored is gone
  void Freeze();  ///< one after the other
  void Thaw();

  /// The index of the leader, or of the only one; waits up to kLimit until there is one.
  std::size_t Leader() const;
  /// One of them. It serves only as one of a quorum: without one, `Launch` it.
  ZooKeeperServer& Server(std::size_t i) { return *m_servers.at(i); }
  std::size_t Size() const { return m_servers.size(); }

  /// "127.0.0.1:<port>,127.0.0.1:<port>,...<chroot>"
  std::string ConnectString(const std::string& chroot = {}) const;

 private:
  void Each(void (ZooKeeperServer::*verb)());

  std::deque<HeldPort> m_quorumPorts;  // two for each: to follow the leader, to elect it
  std::vector<std::unique_ptr<ZooKeeperServer>> m_servers;
};

}  // namespace zr::halden::testing
