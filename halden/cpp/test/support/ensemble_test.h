// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <vector>

#include "halden/connection_v2.h"
#include "halden/service_watcher.h"
#include "halden/testing/zookeeper_client.h"
#include "halden/testing/zookeeper_server.h"
#include "support/await.h"
#include "zrstl/string.h"

namespace zr::halden::test {

/// An instance as the tests publish it.
ServiceInstanceData MakeInstance(const zr::String& host);

/// A test on real servers, one per data centre it names. Servers are started when they are first asked for
/// and serve all tests of the process; each test has a chroot of its own, and finds every server running,
/// whatever the test before did to it.
class EnsembleTest : public ::testing::Test {
 protected:
  static constexpr const char* kService = "orders";
  static constexpr const char* kDc = "eu-west";
  /// Long enough for a busy machine to keep its sessions, and short enough for a client to come back soon:
  /// its pause between tries is a sixtieth of it.
  static constexpr std::chrono::milliseconds kSessionTimeout{6000};

  EnsembleTest();
  ~EnsembleTest() override;

  static ZooKeeperServer& Server(const zr::String& dcName);
  /// Starts all of them at once, which takes less time than one after the other.
  static void StartServers(const std::vector<zr::String>& dcNames);
  /// The other party at the data centre's server, below this test's chroot.
  ZooKeeperClient& Client(const zr::String& dcName);
  /// One more of its kind, with a session of its own.
  std::unique_ptr<ZooKeeperClient> MakeClient(const zr::String& dcName) const;

  zr::String ConnectString(const zr::String& dcName) const;
  /// A configuration file with the given data centres; its path.
  zr::String WriteConfig(const std::vector<zr::String>& dcNames);
  /// A connection that is not started yet.
  std::shared_ptr<Connection> MakeConnection(const zr::String& dcName, bool renewExpired = true,
                                             const zr::String& auth = {},
                                             std::chrono::milliseconds timeout = kSessionTimeout) const;

  /// Puts an instance into the data centre, by the other party.
  ServiceId Publish(const zr::String& dcName, const zr::String& host);

  /// Waits until the connection has come to `state`.
  static ::testing::AssertionResult AwaitState(const Connection& conn, ConnectionState state);
  static ::testing::AssertionResult AwaitFreshness(const ServiceWatcher& watcher, Freshness freshness);

  zr::String m_chroot;  ///< counts for what is made afterwards

 private:
  using ServerMap = std::map<zr::String, std::unique_ptr<ZooKeeperServer>>;

  static ServerMap& Servers();

  std::deque<ConfigFile> m_configs;
  std::map<zr::String, std::unique_ptr<ZooKeeperClient>> m_clients;
};

}  // namespace zr::halden::test
