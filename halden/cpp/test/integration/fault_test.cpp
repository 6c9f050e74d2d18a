// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "halden/event_queue.h"
#include "halden/global_service_watcher.h"
#include "support/capturing_log.h"
#include "support/ensemble_test.h"
#include "support/name_service.h"
#include "support/recording_observer.h"

namespace zr::halden::test {
namespace {

using namespace std::chrono_literals;

/// One data centre, whose instances the test writes, and a watcher that is held against what a client of its own reads.
class FaultTest : public EnsembleTest {
 protected:
  static constexpr const char* kDc = "eu-west";

  /// Watches through a new connection to `hosts`, which it starts.
  void Watch(const zr::String& hosts, const zr::String& auth = {}) {
    // Short, so that a client soon notices a connection that is dead.
    m_conn = std::make_shared<Connection>(std::vector<zr::String>{hosts}, true, auth, 1s, kDc);
    m_watcher = std::make_shared<ServiceWatcher>(m_conn, kService, m_errors.Handler());
    m_watcher->RegisterWeak(m_observer);
    m_watcher->Start();
    m_conn->Start(nullptr);
  }

  void Write(const ServiceId& id) {
    Client(kDc).Publish(kService, id, MakeInstance("h" + std::to_string(++m_writes)));
  }
  std::vector<ServiceId> WriteSome(std::size_t count) {
    std::vector<ServiceId> ids(count);
    for (auto& id : ids) Write(id = MakeServiceId());
    return ids;
  }

  /// Waits until the watcher is live and has what is there. Nobody writes meanwhile.
  ::testing::AssertionResult AwaitTruth() {
    View truth;
    ReadInto(truth, Client(kDc), kDc, kService);
    const auto wrong = [&] {
      View known;
      ServiceInstanceData data;
      for (const auto& id : m_watcher->ListInstances()) {
        if (m_watcher->GetInstanceData(id, data)) known[{kDc, id}] = data.host();
      }
      const bool live = m_watcher->Status().freshness == Freshness::Live;
      return Difference("the watcher", known, truth) + (live ? "" : "; it is not live");
    };
    return Eventually([&] { return wrong().empty(); }, wrong);
  }

  const std::shared_ptr<RecordingObserver> m_observer = std::make_shared<RecordingObserver>();
  const ErrorCodes m_errors{};
  std::shared_ptr<Connection> m_conn;
  std::shared_ptr<ServiceWatcher> m_watcher;

 private:
  int m_writes = 0;
};

TEST_F(FaultTest, WhatMustNotBeReadIsReportedAndComesOnceItMay) {
  const CapturingLog log;
  Client(kDc).Authenticate("digest", "owner:secret");
  const auto ids = WriteSome(5);
  Watch(ConnectString(kDc), "digest:owner:wrong");
  ASSERT_TRUE(AwaitTruth());
  const std::filesystem::path instance = ZooKeeperClient::InstancePath(kService, ids[0]);
  const auto partition = instance.parent_path();
  ServiceInstanceData data;
  for (const auto& locked : {instance, partition, partition.parent_path()}) {
    Client(kDc).SetAccess(locked, Access::Creator);
    m_conn->ForceExpire();
    EXPECT_TRUE(m_errors.Await(ZNOAUTH)) << locked;
    const ServiceId other = WriteSome(1).at(0);
    Write(ids[0]);
    if (locked == instance) {
      EXPECT_TRUE(Eventually([&] { return m_watcher->GetInstanceData(other, data); })) << "harmed by another";
      m_conn->ForceExpire();
      EXPECT_TRUE(m_errors.Await(ZNOAUTH));
      EXPECT_EQ(log.Count("halden.service_watcher", "read failed"), 1) << "once for each node";
    }
    Client(kDc).SetAccess(locked, Access::Everybody);
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
  WriteSome(3);
  EXPECT_TRUE(AwaitTruth());
  NameService::Forget(host);
  Server(kDc).Kill();
  ASSERT_TRUE(AwaitState(*m_conn, ConnectionState::Suspended));
  Server(kDc).Start();
  WriteSome(3);
  EXPECT_TRUE(AwaitTruth());
}

TEST_F(FaultTest, AnythingMayBeDoneAtAnyMomentFromAnyThread) {
  const auto ids = WriteSome(20);
  Watch(ConnectString(kDc));
  GlobalServiceWatcher everywhere(kService, ApplicationManaged{});
  const auto observer = std::make_shared<EventQueue>();
  const std::vector<std::function<void()>> acts{
      [&] { m_conn->Start(nullptr); },
      [&] { m_conn->Stop(); },
      [&] { m_conn->ForceExpire(); },
      [&] { everywhere.AddConnection(m_conn); },
      [&] { everywhere.RemoveConnection(m_conn); },
      [&] { everywhere.DisconnectDC(kDc); },
      [&] { everywhere.RegisterShared(observer), everywhere.UnregisterShared(observer); },
      [&] { everywhere.ListInstances(), everywhere.Status(); }};
  std::vector<std::thread> threads;
  for (unsigned seed = 1; seed <= 3; ++seed) {
    threads.emplace_back([&, random = std::mt19937(seed)]() mutable {
      for (int i = 0; i < 300; ++i) {
        acts[random() % acts.size()]();
        Poll(5ms, [&] { return m_conn->Status().state == ConnectionState::Connected; });
      }
    });
  }
  for (std::size_t i = 0; i < 200; ++i) Write(ids[i % ids.size()]);
  for (auto& thread : threads) thread.join();
  m_conn->Start(nullptr);
  EXPECT_TRUE(AwaitTruth());
}

}  // namespace
}  // namespace zr::halden::test
