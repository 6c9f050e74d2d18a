// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <atomic>
#include <deque>
#include <exception>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "halden/connection_v2.h"
#include "halden/service_publisher.h"
#include "support/tcp_proxy.h"
#include "support/truth_checker.h"
#include "support/zookeeper_ensemble.h"

namespace zr::halden::soak {

using Random = std::mt19937;

inline int Roll(Random& random, int sides) {
  return std::uniform_int_distribution(0, sides - 1)(random);
}

/// A data centre of the soak: an ensemble behind a bad network, one who writes to it directly, and, through
/// the network, two publishers and a watcher. Belongs to the main thread, but for the writer's.
class DataCenter {
 public:
  static constexpr const char* kService = "orders";
  static constexpr std::chrono::milliseconds kSessionTimeout{1500};

  DataCenter(zr::String name, std::size_t servers, std::shared_ptr<test::Ledger> ledger, Random& random);
  ~DataCenter();

  DataCenter(const DataCenter&) = delete;
  DataCenter& operator=(const DataCenter&) = delete;

  const zr::String& Name() const { return m_name; }
  test::ZooKeeperEnsemble& Ensemble() { return m_ensemble; }
  test::ZooKeeperServer& AnyServer(Random& random) { return m_ensemble.Server(Any(random)); }
  /// The way to one of the servers.
  test::TcpProxy& AnyWay(Random& random) { return m_ways.at(Any(random)); }
  void HealNetwork();
  /// What leads through the network.
  zr::String ConnectString() const;
  const test::TruthChecker& Checker() const { return *m_checker; }

  std::shared_ptr<Connection> MakeConnection() const;
  /// The publishers' or the watcher's.
  Connection& AnyConnection(Random& random) { return *m_conns.at(static_cast<std::size_t>(Roll(random, 2))); }
  void Publish(Random& random);
  void Unpublish(Random& random);

  /// A thread that writes until `EndWrites`, the same for the same state of `random`.
  void BeginWrites(Random& random);
  /// Waits for its end; throws what it has thrown.
  void EndWrites();
  /// The ensemble comes back and holds nothing. Only while nobody writes.
  void LoseData();

  /// Ends every fault, and waits until the publishers have been confirmed since. Throws when they are not.
  void Heal();
  /// Throws unless `checker`, which observes `watcher`, is right.
  void Require(const test::TruthChecker& checker, const ServiceWatcher& watcher) const;
  void RequireTruth() const { Require(*m_checker, *m_watcher); }

 private:
  std::size_t Any(Random& random) const {
    return static_cast<std::size_t>(Roll(random, static_cast<int>(m_ensemble.Size())));
  }
  void Write(test::ZooKeeperClient& client, Random& random);
  ServiceInstanceData Data(const ServiceId& id, Random& random) const;

  const zr::String m_name;
  const std::shared_ptr<test::Ledger> m_ledger;
  const std::shared_ptr<test::TruthChecker> m_checker = std::make_shared<test::TruthChecker>(m_ledger);
  test::ZooKeeperEnsemble m_ensemble;
  std::deque<test::TcpProxy> m_ways;  // to each server
  std::vector<ServiceId> m_ids;
  std::array<std::shared_ptr<Connection>, 2> m_conns;
  std::array<std::unique_ptr<ServicePublisher>, 2> m_publishers;
  std::shared_ptr<ServiceWatcher> m_watcher;
  std::atomic<bool> m_writing{false};
  std::thread m_writer;
  std::exception_ptr m_failure;  // the writer's, until it has ended
};

}  // namespace zr::halden::soak
