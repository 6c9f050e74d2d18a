// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "halden/global_service_watcher.h"
#include "halden/service_publisher.h"
#include "support/fault_test.h"
#include "support/name_service.h"
#include "support/zookeeper_ensemble.h"

namespace zr::halden::test {
namespace {

using namespace std::chrono_literals;

TEST_F(FaultTest, ADeadLeaderAndALongLostQuorumCostNoInstance) {
  ZooKeeperEnsemble ensemble(3);
  ensemble.Start();
  ZooKeeperClient client(ensemble.ConnectString());
  const auto ids = WriteSome(client, 20);
  Watch(ensemble.ConnectString());
  ASSERT_TRUE(AwaitTruth(client));
  const std::size_t leader = ensemble.Leader();
  const std::size_t other = (leader + 1) % ensemble.Size();
  ensemble.Server(leader).Kill();
  Delete(client, ids[0]);
  Write(client, ids[1]);
  EXPECT_TRUE(AwaitTruth(client));

  ensemble.Server(other).Kill();
  ASSERT_TRUE(AwaitFreshness(*m_watcher, Freshness::Stale));
  ASSERT_TRUE(Eventually([&] {
    const auto since = m_watcher->Status().staleSince;
    return since && std::chrono::system_clock::now() - *since > 2 * kShortTimeout;
  }));
  EXPECT_EQ(m_watcher->ListInstances().size(), ids.size() - 1);
  ensemble.Start();
  Delete(client, ids[2]);
  Write(client, ids[3]);
  EXPECT_TRUE(AwaitTruth(client));
}

TEST_F(FaultTest, AServerThatComesBackEmptyIsBelieved) {
  Watch(ConnectString(kDc));
  WriteSome(Client(kDc), 10);
  ASSERT_TRUE(AwaitTruth());
  m_ledger->DeleteAll(kDc);
  Server(kDc).Wipe();
  Server(kDc).Start();
  WriteSome(Client(kDc), 3);
  EXPECT_TRUE(AwaitTruth());
}

TEST_F(FaultTest, AForcedExpiryWithAThousandRequestsOutstandingLosesNone) {
  Watch(ConnectString(kDc));
  std::vector<std::unique_ptr<ServicePublisher>> publishers(1000);
  for (auto& publisher : publishers) {
    publisher = std::make_unique<ServicePublisher>(m_conn, kService, MakeServiceId());
    m_ledger->Doubt({kDc, publisher->Id()});
    publisher->Publish(MakeInstance("host"));
  }
  m_conn->ForceExpire();
  for (const auto& publisher : publishers) publisher->Publish(MakeInstance("last"));
  for (const auto& publisher : publishers) ASSERT_TRUE(publisher->AwaitPublished(kLimit));
  EXPECT_TRUE(AwaitTruth());
  EXPECT_EQ(m_watcher->ListInstances().size(), publishers.size());
}

TEST_F(FaultTest, WhatMustNotBeReadIsReportedAndComesOnceItMay) {
  Client(kDc).Authenticate("digest", "owner:secret");
  const auto ids = WriteSome(Client(kDc), 5);
  Watch(ConnectString(kDc), "digest:owner:wrong");
  ASSERT_TRUE(AwaitTruth());
  const std::filesystem::path instance = ZooKeeperClient::InstancePath(kService, ids[0]);
  const auto partition = instance.parent_path();
  ServiceInstanceData data;
  for (const auto& locked : {instance, partition, partition.parent_path()}) {
    Client(kDc).SetAcl(locked, ZOO_CREATOR_ALL_ACL);
    m_conn->ForceExpire();
    EXPECT_TRUE(m_errors.Await(ZNOAUTH)) << locked;
    const ServiceId other = WriteSome(Client(kDc), 1).at(0);
    Write(Client(kDc), ids[0]);
    if (locked == instance) {
      EXPECT_TRUE(Eventually([&] { return m_watcher->GetInstanceData(other, data); })) << "harmed by another";
    }
    Client(kDc).SetAcl(locked, ZOO_OPEN_ACL_UNSAFE);
    EXPECT_TRUE(AwaitTruth()) << locked;
  }
}

TEST_F(FaultTest, AnAuthenticationThatIsRefusedIsReportedAndTriedAgain) {
  Watch(ConnectString(kDc), "no-such-scheme:secret");
  EXPECT_TRUE(m_errors.Await(ZAUTHFAILED));
  EXPECT_TRUE(AwaitState(*m_conn, ConnectionState::Connecting));
  EXPECT_TRUE(AwaitState(*m_conn, ConnectionState::AuthFailed));
  m_conn->Stop();
  EXPECT_TRUE(m_conn->AwaitClosed(kLimit));
}

TEST_F(FaultTest, NamesThatDoNotResolveOrMoveAreFollowed) {
  const zr::String host = "zk" + m_chroot.substr(1) + ".test";
  Watch(host + ":" + std::to_string(Server(kDc).Port()) + m_chroot);
  ASSERT_TRUE(Eventually([&] { return !m_conn->Status().lastErrorText.empty(); }));
  EXPECT_EQ(m_conn->Status().state, ConnectionState::Connecting);
  NameService::Set(host, "127.0.0.2");  // where nobody listens
  ASSERT_TRUE(Eventually([&] { return m_conn->Status().lastError == ZCONNECTIONLOSS; }));
  NameService::Set(host, "127.0.0.1");
  WriteSome(Client(kDc), 3);
  EXPECT_TRUE(AwaitTruth());
  NameService::Forget(host);
  Server(kDc).Kill();
  ASSERT_TRUE(AwaitLost());
  Server(kDc).Start();
  WriteSome(Client(kDc), 3);
  EXPECT_TRUE(AwaitTruth());
}

/// Threads and callbacks that do anything at any moment to two connections and what works through them.
class Turmoil : public ServiceWatcherObserver, public std::enable_shared_from_this<Turmoil> {
 public:
  explicit Turmoil(unsigned seed, zr::String hosts) : m_hosts(std::move(hosts)), m_random(seed) {}

  void OnInstanceAdded(ServiceWatcher&, const ServiceId&, const ServiceInstanceData&) override { Act(); }
  void OnInstanceModified(ServiceWatcher&, const ServiceId&, const ServiceInstanceData&) override { Act(); }
  void OnInstanceRemoved(ServiceWatcher&, const ServiceId&) override { Act(); }

  void Act() {
    if (++m_acts <= kActs) Do(Choose());
  }

  bool Over() const { return m_acts > kActs; }

  /// The watcher owns its observer, which owns the watcher.
  void End() {
    std::shared_ptr<GlobalServiceWatcher> last;  // goes after the lock
    const std::lock_guard lock(m_mtx);
    last.swap(m_watcher);
  }

  /// What the threads do: now and then it is a connection that has come up that they strike.
  void Rage() {
    while (!Over()) {
      Act();
      const auto conn = Choose().conn;
      Poll(10ms, [&] { return conn->Status().state == ConnectionState::Connected; });
    }
  }

 private:
  static constexpr int kActs = 400;
  struct Choice {
    std::shared_ptr<Connection> conn;
    std::shared_ptr<GlobalServiceWatcher> watcher;
    int act;
  };

  void Do(const Choice& choice) {
    const auto& [conn, watcher, act] = choice;
    switch (act) {
      case 0:
      case 1:
        return conn->Start(nullptr);
      case 2:
        return conn->Stop();
      case 3:
        return conn->ForceExpire();
      case 4:
      case 5:
        return watcher->AddConnection(conn);
      case 6:
        return watcher->RemoveConnection(conn);
      case 7:
        watcher->UnregisterShared(shared_from_this());
        return watcher->RegisterShared(shared_from_this());
      case 8:
        watcher->RegisterWeak(weak_from_this());
        return watcher->UnregisterWeak(weak_from_this());
      default:
        watcher->ListInstances();
        watcher->Status();
        watcher->DisconnectDC(conn->DataCenterName());
    }
  }

  /// What to do next, and to whom; now and then a connection or the watcher is replaced, and destroyed by
  /// whoever used it last.
  Choice Choose() {
    const std::lock_guard lock(m_mtx);
    const auto roll = [this](int sides) { return std::uniform_int_distribution(0, sides - 1)(m_random); };
    auto& conn = m_conns.at(static_cast<std::size_t>(roll(2)));
    Choice choice{conn, m_watcher, roll(10)};
    if (!conn || roll(15) == 0) {
      const zr::String dcName = &conn == &m_conns[0] ? "eu-west" : "us-east";
      conn = std::make_shared<Connection>(std::vector<zr::String>{m_hosts}, true, "", 1s, dcName);
    }
    if (!m_watcher || roll(20) == 0) {
      m_watcher = std::make_shared<GlobalServiceWatcher>("orders", ApplicationManaged());
      m_watcher->RegisterShared(shared_from_this());
    }
    if (!choice.conn) choice.conn = conn;
    if (!choice.watcher) choice.watcher = m_watcher;
    return choice;
  }

  const zr::String m_hosts;
  std::atomic<int> m_acts{0};
  std::mutex m_mtx;  // guards the three below
  std::mt19937 m_random;
  std::array<std::shared_ptr<Connection>, 2> m_conns;
  std::shared_ptr<GlobalServiceWatcher> m_watcher;
};

TEST_F(FaultTest, AnythingMayBeDoneAtAnyMomentFromAnyThread) {
  const auto ids = WriteSome(Client(kDc), 20);
  for (unsigned seed = 1; seed <= 3; ++seed) {
    const auto turmoil = std::make_shared<Turmoil>(seed, ConnectString(kDc));
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
      threads.emplace_back(&Turmoil::Rage, turmoil);
    }
    for (std::size_t i = 0; !turmoil->Over(); ++i) Write(Client(kDc), ids[i % ids.size()]);
    for (auto& thread : threads) thread.join();
    turmoil->End();
  }
  Watch(ConnectString(kDc));
  EXPECT_TRUE(AwaitTruth());
}

}  // namespace
}  // namespace zr::halden::test
