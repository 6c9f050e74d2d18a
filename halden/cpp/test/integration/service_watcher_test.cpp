// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "halden/service_watcher.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <new>
#include <random>
#include <thread>
#include <vector>

#include "halden/event_queue.h"
#include "halden/global_service_watcher.h"
#include "support/capturing_log.h"
#include "support/ensemble_test.h"
#include "support/name_service.h"
#include "support/recording_observer.h"

namespace {

constexpr std::size_t kLarge = 100'000;
/// Large allocations until one fails; none does at 0.
std::atomic<int> g_untilFailure{0};
thread_local bool t_spared = false;

}  // namespace

// NOLINTBEGIN(cppcoreguidelines-no-malloc)
void* operator new(std::size_t size) {
  if (size >= kLarge && !t_spared && g_untilFailure > 0 && --g_untilFailure == 0) throw std::bad_alloc();
  if (void* const memory = std::malloc(std::max<std::size_t>(size, 1))) return memory;
  throw std::bad_alloc();
}
__attribute__((noinline)) void operator delete(void* memory) noexcept {
  std::free(memory);
}
__attribute__((noinline)) void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
// NOLINTEND(cppcoreguidelines-no-malloc)

namespace zr::halden::test {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

/// One data centre, its connection in the test's hands.
class ServiceWatcherTest : public EnsembleTest {
 protected:
  std::shared_ptr<ServiceWatcher> MakeWatcher(std::shared_ptr<Connection> conn,
                                              const std::shared_ptr<ServiceWatcherObserver>& observer) const {
    auto watcher = std::make_shared<ServiceWatcher>(std::move(conn), kService, m_errors.Handler());
    watcher->RegisterWeak(observer);
    watcher->Start();
    return watcher;
  }

  void Watch() {
    m_conn->Start(nullptr);
    m_watcher = MakeWatcher(m_conn, m_observer);
    ASSERT_TRUE(m_watcher->AwaitSynchronized(kLimit));
  }
  /// Through a new connection, that soon notices when it is dead.
  void Watch(const zr::String& hosts, const zr::String& auth = {}) {
    m_conn = std::make_shared<Connection>(std::vector<zr::String>{hosts}, true, auth, 1s, kDc);
    m_conn->Start(nullptr);
    m_watcher = MakeWatcher(m_conn, m_observer);
  }

  std::vector<ServiceId> WriteSome(std::size_t count) {
    std::vector<ServiceId> ids(count);
    for (auto& id : ids) Write(id = MakeServiceId());
    return ids;
  }
  void Write(const ServiceId& id) {
    Client(kDc).Publish(kService, id, MakeInstance(std::to_string(++m_writes)));
  }

  /// Waits until the watcher is live and has what is there. Nobody writes meanwhile.
  ::testing::AssertionResult AwaitTruth() {
    View truth;
    ReadInto(truth, Client(kDc), kDc, kService);
    const auto wrong = [&] {
      View known;
      for (const auto& id : m_watcher->ListInstances()) known[{kDc, id}] = HostOf(id);
      const bool live = m_watcher->Status().freshness == Freshness::Live;
      return Difference("the watcher", known, truth) + (live ? "" : "; it is not live");
    };
    return Eventually([&] { return wrong().empty(); }, wrong);
  }

  zr::String HostOf(const ServiceId& id) const {
    ServiceInstanceData data;
    return m_watcher->GetInstanceData(id, data) ? data.host() : "-";
  }

  std::shared_ptr<Connection> m_conn = MakeConnection(kDc);
  const std::shared_ptr<RecordingObserver> m_observer = std::make_shared<RecordingObserver>();
  const ErrorCodes m_errors{};
  std::shared_ptr<ServiceWatcher> m_watcher;
  int m_writes = 0;
};

TEST_F(ServiceWatcherTest, ABadPayloadCostsNoGoodValueAndNoOtherInstance) {
  const CapturingLog log;
  const ServiceId neverGood = MakeServiceId();
  Client(kDc).PublishRaw(kService, neverGood, "\xff\xff garbage");
  const ServiceId wasGood = Publish(kDc, "good");
  Watch();
  ASSERT_TRUE(m_observer->Await(EventKind::Added, kDc, wasGood));
  Client(kDc).PublishRaw(kService, wasGood, "\xff\xff garbage");
  ASSERT_TRUE(Eventually([&] { return m_watcher->Status().quarantined == 2; }));
  ASSERT_TRUE(m_errors.Await(ZMARSHALLINGERROR));
  const ServiceId other = Publish(kDc, "other");
  ASSERT_TRUE(m_observer->Await(EventKind::Added, kDc, other));
  EXPECT_THAT(m_watcher->ListInstances(), UnorderedElementsAre(wasGood, other));
  EXPECT_EQ(HostOf(wasGood), "good");
  EXPECT_EQ(log.Count("halden.service_watcher", ToString(wasGood)), 1) << "once for each version of the node";

  Client(kDc).Publish(kService, wasGood, MakeInstance("repaired"));
  Client(kDc).Publish(kService, neverGood, MakeInstance("repaired"));
  ASSERT_TRUE(m_observer->AwaitHost(kDc, neverGood, "repaired"));
  ASSERT_TRUE(m_observer->AwaitHost(kDc, wasGood, "repaired"));
  EXPECT_THAT(m_observer->History(kDc, wasGood), ElementsAre(EventKind::Added, EventKind::Modified));
  EXPECT_EQ(m_watcher->Status().quarantined, 0U);
}

/// Keeps the last host that it was told, and nothing large.
struct HostObserver : ServiceWatcherObserver {
  void OnInstanceAdded(ServiceWatcher&, const ServiceId&, const ServiceInstanceData& data) override {
    host = std::stoi(data.host());
  }
  void OnInstanceModified(ServiceWatcher& watcher, const ServiceId& id,
                          const ServiceInstanceData& data) override {
    OnInstanceAdded(watcher, id, data);
  }
  void OnInstanceRemoved(ServiceWatcher&, const ServiceId&) override {}
  std::atomic<int> host{0};
};

TEST_F(ServiceWatcherTest, AnAllocationThatFailsDelaysAnInstanceAndSilencesNobody) {
  const auto observer = std::make_shared<HostObserver>();
  m_conn->Start(nullptr);
  m_watcher = MakeWatcher(m_conn, observer);
  const ServiceId id = Publish(kDc, "0");
  ServiceInstanceData data = MakeInstance("");
  data.add_attributes()->set_value(std::string(2 * kLarge, 'a'));
  int failed = 0;
  for (int i = 1; i <= 8; ++i) {  // each fails somewhere else between the answer and the observer
    data.set_host(std::to_string(i));
    const std::string bytes = EncodeInstance(data);
    t_spared = true;  // the client that publishes
    g_untilFailure = i;
    Client(kDc).PublishRaw(kService, id, bytes);
    EXPECT_TRUE(Eventually([&] { return observer->host == i; })) << i;
    if (g_untilFailure.exchange(0) == 0) ++failed;
    EXPECT_EQ(HostOf(id), data.host());
  }
  EXPECT_GE(failed, 3);
  t_spared = false;
}

TEST_F(ServiceWatcherTest, StrangeNodesAreNoInstances) {
  const CapturingLog log;
  const ServiceId id = MakeServiceId();
  const std::filesystem::path right = ZooKeeperClient::InstancePath(kService, id);
  const auto partition = right.parent_path();
  const auto service = partition.parent_path();
  const std::string data = EncodeInstance(MakeInstance("strange"));
  zr::String upperCase = ToString(id);
  for (auto& letter : upperCase) letter = static_cast<char>(std::toupper(letter));
  for (const auto& path : {partition / "lock", partition / upperCase, service / "zz" / ToString(id),
                           service / (partition.filename() == "00" ? "01" : "00") / ToString(id)}) {
    Client(kDc).Create(path, data);
  }
  const ServiceId known = Publish(kDc, "known");
  Watch();
  EXPECT_THAT(m_watcher->ListInstances(), ElementsAre(known));
  Client(kDc).Publish(kService, id, MakeInstance("right"));
  ASSERT_TRUE(m_observer->AwaitHost(kDc, id, "right"));
  EXPECT_EQ(m_observer->Events().size(), 2U);
  EXPECT_EQ(log.Count("halden.service_watcher", "node ignored"), 4) << "once for each";
}

TEST_F(ServiceWatcherTest, ASlowObserverDelaysNeitherQueriesNorOthersAndGetsTheNewestState) {
  const auto entered = std::make_shared<Happening>();
  const auto opened = std::make_shared<Happening>();
  const auto slow = std::make_shared<RecordingObserver>([entered, opened](ServiceWatcher&, const Event&) {
    entered->Set();
    opened->Await();
  });
  m_conn->Start(nullptr);
  m_watcher = MakeWatcher(m_conn, slow);
  const auto otherConn = MakeConnection(kDc);
  otherConn->Start(nullptr);
  const auto other = MakeWatcher(otherConn, m_observer);
  const ServiceId id = Publish(kDc, "0");
  ASSERT_TRUE(entered->Await());
  for (int i = 1; i <= 100; ++i) Client(kDc).Publish(kService, id, MakeInstance(std::to_string(i)));
  ASSERT_TRUE(m_observer->AwaitHost(kDc, id, "100"));
  ASSERT_TRUE(Eventually([&] { return HostOf(id) == "100"; }, [&] { return HostOf(id); }));
  opened->Set();
  ASSERT_TRUE(slow->AwaitHost(kDc, id, "100"));
  EXPECT_THAT(slow->History(kDc, id), ElementsAre(EventKind::Added, EventKind::Modified));
}

TEST_F(ServiceWatcherTest, WithoutRenewalAnExpiryIsReportedAndWaitsForStart) {
  const auto conn = MakeConnection(kDc, /*renewExpired=*/false);
  const ServiceId kept = Publish(kDc, "kept");
  conn->Start(nullptr);
  m_watcher = MakeWatcher(conn, m_observer);
  ASSERT_TRUE(m_observer->Await(EventKind::Added, kDc, kept));
  conn->ForceExpire();
  ASSERT_TRUE(m_errors.Await(ZSESSIONEXPIRED));
  ASSERT_TRUE(AwaitState(*conn, ConnectionState::Expired));
  ASSERT_TRUE(AwaitFreshness(*m_watcher, Freshness::Stale));
  EXPECT_EQ(HostOf(kept), "kept");
  const ServiceId added = Publish(kDc, "added");
  conn->Start(nullptr);
  ASSERT_TRUE(m_observer->Await(EventKind::Added, kDc, added));
  EXPECT_EQ(m_observer->Events().size(), 2U);
}

TEST_F(ServiceWatcherTest, WhatMustNotBeReadIsReportedAndComesOnceItMay) {
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
  for (const auto* above : {"/halden/services", "/halden", ""}) Client(kDc).SetAccess(above, Access::Creator);
  m_conn->ForceExpire();
  WriteSome(1);
  EXPECT_TRUE(AwaitTruth()) << "nobody needs what is above the service";
}

TEST_F(ServiceWatcherTest, AnAuthenticationThatIsRefusedIsReportedAndTriedAgain) {
  Watch(ConnectString(kDc), "no-such-scheme:secret");
  EXPECT_TRUE(m_errors.Await(ZAUTHFAILED));
  EXPECT_TRUE(AwaitState(*m_conn, ConnectionState::Connecting));
  EXPECT_TRUE(AwaitState(*m_conn, ConnectionState::AuthFailed));
  m_conn->Stop();
  EXPECT_TRUE(m_conn->AwaitClosed(kLimit));
}

TEST_F(ServiceWatcherTest, NamesThatDoNotResolveOrMoveAreFollowed) {
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

TEST_F(ServiceWatcherTest, AnythingMayBeDoneAtAnyMomentFromAnyThread) {
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
