// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "halden/service_watcher.h"

#include <gmock/gmock.h>
#include <zlib.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <memory>
#include <random>
#include <vector>

#include "halden/global_service_watcher.h"
#include "support/capturing_log.h"
#include "support/ensemble_test.h"
#include "support/recording_observer.h"

namespace zr::halden::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

constexpr const char* kDc = "eu-west";

std::string NodeWith(int compression, std::string payload) {
  zr::messaging::halden::ZNodeData node;
  node.set_compression(static_cast<zr::messaging::halden::ZNodeData::Compression>(compression));
  node.set_payload(std::move(payload));
  return node.SerializeAsString();
}

/// What a broken or a malicious writer leaves.
std::vector<std::string> BadNodes() {
  std::string noise(1'000'000, '\0');
  std::mt19937 random(1);
  std::generate(noise.begin(), noise.end(), [&] { return static_cast<char>(random()); });
  std::string bomb(100'000, '\0');
  const std::string zeros(32UL * 1024 * 1024, '\0');
  uLongf length = bomb.size();
  compress(reinterpret_cast<Bytef*>(bomb.data()), &length, reinterpret_cast<const Bytef*>(zeros.data()),
           zeros.size());
  const std::string good = EncodeInstance(MakeInstance("host"));
  return {"",
          good.substr(0, good.size() / 2),
          noise,
          NodeWith(1, noise.substr(0, 200)),
          NodeWith(1, bomb.substr(0, length)),
          NodeWith(9, MakeInstance("host").SerializeAsString())};
}

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

  zr::String HostOf(const ServiceId& id) const {
    ServiceInstanceData data;
    return m_watcher->GetInstanceData(id, data) ? data.host() : "-";
  }

  const std::shared_ptr<Connection> m_conn = MakeConnection(kDc);
  const std::shared_ptr<RecordingObserver> m_observer = std::make_shared<RecordingObserver>();
  const ErrorCodes m_errors{};
  std::shared_ptr<ServiceWatcher> m_watcher;
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

TEST_F(ServiceWatcherTest, MassesOfBadNodesHarmNoGoodOne) {
  constexpr std::size_t mass = 10'000;
  const CapturingLog log;
  const ServiceId known = Publish(kDc, "known");
  Watch();
  m_conn->Stop();
  ASSERT_TRUE(AwaitFreshness(*m_watcher, Freshness::Stale));
  auto bad = BadNodes();
  bad.resize(mass, bad[1]);
  for (const auto& bytes : bad) Client(kDc).PublishRaw(kService, MakeServiceId(), bytes);
  auto longest = MakeInstance("longest");
  longest.add_attributes()->set_value(std::string(999'000, 'x'));
  // The value of an enumeration and a field that a newer writer has.
  auto newer = NodeWith(0, MakeInstance("newer").SerializeAsString() + "\x30\x4d\xca\x3e\x05later");
  const std::vector<std::pair<std::string, ServiceId>> good = {{"longest", MakeServiceId()},
                                                               {"newer", MakeServiceId()}};
  Client(kDc).Publish(kService, good[0].second, longest);
  Client(kDc).PublishRaw(kService, good[1].second, newer);
  Client(kDc).Publish(kService, known, MakeInstance("changed"));
  for (int round = 0; round < 2; ++round) {  // what was read and refused once is not told of again
    m_conn->Start(nullptr);
    ASSERT_TRUE(m_observer->AwaitHost(kDc, known, "changed"));
    for (const auto& [host, id] : good) ASSERT_TRUE(m_observer->AwaitHost(kDc, id, host));
    ASSERT_TRUE(AwaitFreshness(*m_watcher, Freshness::Live));
    EXPECT_EQ(m_watcher->Status().quarantined, mass);
    EXPECT_EQ(m_watcher->Status().instances, 3U);
    EXPECT_EQ(log.Count("halden.service_watcher", "node quarantined"), std::ptrdiff_t{mass});
    m_conn->Stop();
    ASSERT_TRUE(AwaitFreshness(*m_watcher, Freshness::Stale));
  }
  ASSERT_TRUE(m_errors.Await(ZMARSHALLINGERROR));
  EXPECT_EQ(m_observer->Events().size(), 4U);
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

TEST_F(ServiceWatcherTest, AServiceThatIsAbsentOrVanishesIsAnEmptyOne) {
  Watch();
  EXPECT_THAT(m_watcher->ListInstances(), IsEmpty());
  std::vector<ServiceId> ids = {Publish(kDc, "a"), Publish(kDc, "b")};
  for (const auto* vanishing : {"/halden/services/orders", "/halden"}) {
    for (const auto& id : ids) ASSERT_TRUE(m_observer->Await(EventKind::Added, kDc, id));
    Client(kDc).Delete(vanishing);
    for (const auto& id : ids) ASSERT_TRUE(m_observer->Await(EventKind::Removed, kDc, id));
    EXPECT_THAT(m_watcher->ListInstances(), IsEmpty());
    ids = {Publish(kDc, "a"), Publish(kDc, "b")};
  }
  for (const auto& id : ids) ASSERT_TRUE(m_observer->Await(EventKind::Added, kDc, id));
  EXPECT_EQ(m_watcher->Status().freshness, Freshness::Live);
}

TEST_F(ServiceWatcherTest, MoreWatchesThanAPacketHoldsSurviveAReconnectAndAnExpiry) {
  // The client library sets all watches again in one packet, which the server refuses past a megabyte.
  m_chroot += "/" + zr::String(1000, 'x');
  constexpr std::size_t count = 1200;
  for (std::size_t i = 0; i < count; ++i) Publish(kDc, "host");
  const auto conn = MakeConnection(kDc);
  conn->Start(nullptr);
  m_watcher = MakeWatcher(conn, m_observer);
  ASSERT_TRUE(m_observer->Await("all", [](const auto& events) { return events.size() == count; }));
  Server(kDc).Kill();
  Server(kDc).Start();
  const ServiceId reconnected = Publish(kDc, "reconnected");
  ASSERT_TRUE(m_observer->Await(EventKind::Added, kDc, reconnected));
  conn->ForceExpire();
  ASSERT_TRUE(Eventually([&] { return conn->Status().expiries == 1; }));
  ASSERT_TRUE(AwaitFreshness(*m_watcher, Freshness::Live));
  const ServiceId renewed = Publish(kDc, "renewed");
  ASSERT_TRUE(m_observer->Await(EventKind::Added, kDc, renewed));
  EXPECT_EQ(m_observer->Events().size(), count + 2);
}

TEST_F(ServiceWatcherTest, ASlowObserverDelaysNeitherQueriesNorOthersAndGetsTheNewestState) {
  struct Gate {
    Happening entered;
    Happening opened;
  };
  const auto gate = std::make_shared<Gate>();
  const auto slow = std::make_shared<RecordingObserver>([gate](ServiceWatcher&, const Event& event) {
    if (event.data.host() != "1") return;
    gate->entered.Set();
    gate->opened.Await();
  });
  m_conn->Start(nullptr);
  m_watcher = MakeWatcher(m_conn, slow);
  const auto otherConn = MakeConnection(kDc);
  otherConn->Start(nullptr);
  const auto other = MakeWatcher(otherConn, m_observer);
  const ServiceId changed = Publish(kDc, "0");
  const ServiceId recreated = Publish(kDc, "same");
  ASSERT_TRUE(slow->Await("both", [](const auto& events) { return events.size() == 2; }));
  Client(kDc).Publish(kService, changed, MakeInstance("1"));
  ASSERT_TRUE(gate->entered.Await());
  Client(kDc).Unpublish(kService, recreated);
  Client(kDc).Publish(kService, recreated, MakeInstance("same"));
  for (int i = 2; i <= 100; ++i) Client(kDc).Publish(kService, changed, MakeInstance(std::to_string(i)));
  ASSERT_TRUE(m_observer->AwaitHost(kDc, changed, "100"));
  ASSERT_TRUE(Eventually([&] { return HostOf(changed) == "100"; }, [&] { return HostOf(changed); }));
  gate->opened.Set();
  ASSERT_TRUE(slow->AwaitHost(kDc, changed, "100"));
  ASSERT_TRUE(slow->Await(EventKind::Added, kDc, recreated, 2));
  EXPECT_THAT(slow->History(kDc, changed),
              ElementsAre(EventKind::Added, EventKind::Modified, EventKind::Modified));
  EXPECT_THAT(slow->History(kDc, recreated),
              ElementsAre(EventKind::Added, EventKind::Removed, EventKind::Added));
}

TEST_F(ServiceWatcherTest, AStopThatMissesChangesIsCaughtUpByTheNextStart) {
  const ServiceId kept = Publish(kDc, "kept");
  const ServiceId recreated = Publish(kDc, "same");
  const ServiceId gone = Publish(kDc, "gone");
  Watch();
  ASSERT_TRUE(m_observer->Await("all three", [](const auto& events) { return events.size() == 3; }));
  m_conn->Stop();
  m_conn->Stop();
  ASSERT_TRUE(AwaitFreshness(*m_watcher, Freshness::Stale));
  Client(kDc).Unpublish(kService, recreated);
  Client(kDc).Publish(kService, recreated, MakeInstance("same"));
  Client(kDc).Unpublish(kService, gone);
  EXPECT_THAT(m_watcher->ListInstances(), UnorderedElementsAre(kept, recreated, gone));
  m_conn->Start(nullptr);
  ASSERT_TRUE(m_observer->Await(EventKind::Added, kDc, recreated, 2));
  ASSERT_TRUE(m_observer->Await(EventKind::Removed, kDc, gone));
  EXPECT_THAT(m_observer->History(kDc, recreated),
              ElementsAre(EventKind::Added, EventKind::Removed, EventKind::Added));
  EXPECT_THAT(m_observer->History(kDc, kept), ElementsAre(EventKind::Added));
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

TEST_F(ServiceWatcherTest, AFrozenServerCostsNoInstance) {
  const auto conn = MakeConnection(kDc, true, {}, std::chrono::milliseconds(600));
  const ServiceId kept = Publish(kDc, "kept");
  conn->Start(nullptr);
  m_watcher = MakeWatcher(conn, m_observer);
  ASSERT_TRUE(m_observer->Await(EventKind::Added, kDc, kept));
  Server(kDc).Pause();
  ASSERT_TRUE(AwaitState(*conn, ConnectionState::Suspended));
  EXPECT_EQ(HostOf(kept), "kept");
  Server(kDc).Resume();
  ASSERT_TRUE(AwaitFreshness(*m_watcher, Freshness::Live));
  const ServiceId added = Publish(kDc, "added");
  ASSERT_TRUE(m_observer->Await(EventKind::Added, kDc, added));
  EXPECT_EQ(m_observer->Events().size(), 2U);
}

TEST_F(ServiceWatcherTest, TwoServicesShareAConnectionWithoutMixing) {
  const auto invoices = std::make_shared<RecordingObserver>();
  GlobalServiceWatcher ordersWatcher(kService, ApplicationManaged{});
  GlobalServiceWatcher invoicesWatcher("invoices", ApplicationManaged{});
  ordersWatcher.RegisterWeak(m_observer);
  invoicesWatcher.RegisterWeak(invoices);
  ordersWatcher.AddConnection(m_conn);
  invoicesWatcher.AddConnection(m_conn);
  EXPECT_EQ(m_conn->Status().state, ConnectionState::Stopped) << "it is the application's to start";
  m_conn->Start(nullptr);
  const ServiceId id = Publish(kDc, "order");
  Client(kDc).Publish("invoices", id, MakeInstance("invoice"));
  ASSERT_TRUE(m_observer->AwaitHost(kDc, id, "order"));
  ASSERT_TRUE(invoices->AwaitHost(kDc, id, "invoice"));
  EXPECT_TRUE(ordersWatcher.DisconnectDC(kDc))
      << "expires the session, and leaves the rest to the application";
  EXPECT_TRUE(ordersWatcher.HasConnection(kDc));

  ordersWatcher.RemoveConnection(m_conn);
  EXPECT_THAT(ordersWatcher.ListInstances(), IsEmpty());
  Client(kDc).Unpublish(kService, id);
  Client(kDc).Publish("invoices", id, MakeInstance("changed"));
  ASSERT_TRUE(invoices->AwaitHost(kDc, id, "changed"));
  EXPECT_EQ(m_observer->Events().size(), 1U);
  EXPECT_EQ(m_conn->Status().expiries, 1U);
}

}  // namespace
}  // namespace zr::halden::test
