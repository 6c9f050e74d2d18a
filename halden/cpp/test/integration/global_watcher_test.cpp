// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "halden/global_service_watcher.h"

#include <gmock/gmock.h>

#include <memory>
#include <mutex>
#include <vector>

#include "support/ensemble_test.h"
#include "support/recording_observer.h"

namespace zr::halden::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

constexpr const char* kEast = "us-east";
constexpr const char* kSouth = "ap-south";
constexpr const char* kWest = "eu-west";

/// Three data centres whose connections the library manages.
class GlobalWatcherTest : public EnsembleTest {
 protected:
  GlobalWatcherTest() { StartServers({kEast, kSouth, kWest}); }

  std::unique_ptr<GlobalServiceWatcher> MakeWatcher(
      const std::shared_ptr<RecordingObserver>& observer) const {
    auto watcher =
        std::make_unique<GlobalServiceWatcher>(kService, LibraryManaged{WriteConfig({kEast, kSouth, kWest})});
    watcher->RegisterWeak(observer);
    return watcher;
  }

  void Watch() {
    m_watcher = MakeWatcher(m_observer);
    m_watcher->StartManagedConnections();
    ASSERT_TRUE(m_watcher->AwaitSynchronized(kLimit));
  }

  std::shared_ptr<ServiceWatcher> WatcherOf(const zr::String& dcName) const {
    for (const auto& watcher : m_watcher->Watchers()) {
      if (watcher->DataCenterName() == dcName) return watcher;
    }
    throw std::logic_error("no watcher for " + dcName);
  }

  zr::String HostOf(const ServiceId& id) const {
    std::shared_ptr<ServiceWatcher> watcher;
    ServiceInstanceData data;
    return m_watcher->GetInstanceData(id, watcher, data) ? watcher->DataCenterName() + ":" + data.host()
                                                         : "-";
  }

  std::shared_ptr<RecordingObserver> m_observer = std::make_shared<RecordingObserver>();
  std::unique_ptr<GlobalServiceWatcher> m_watcher;
};

TEST_F(GlobalWatcherTest, AnInstanceInTwoDataCentersIsTwoInstances) {
  const ServiceId both = Publish(kWest, "west");
  Client(kEast).Publish(kService, both, MakeInstance("east"));
  const ServiceId south = Publish(kSouth, "south");
  Watch();
  EXPECT_THAT(m_watcher->ListInstances(), UnorderedElementsAre(both, both, south));
  EXPECT_EQ(HostOf(south), "ap-south:south");
  EXPECT_EQ(HostOf(MakeServiceId()), "-");
  ASSERT_TRUE(m_observer->AwaitHost(kWest, both, "west"));
  ASSERT_TRUE(m_observer->AwaitHost(kEast, both, "east"));
  ASSERT_TRUE(m_observer->AwaitHost(kSouth, south, "south"));

  Client(kEast).Unpublish(kService, both);
  ASSERT_TRUE(m_observer->Await(EventKind::Removed, kEast, both));
  EXPECT_THAT(m_watcher->ListInstances(), UnorderedElementsAre(both, south));
  EXPECT_EQ(HostOf(both), "eu-west:west");
  EXPECT_THAT(m_observer->History(kWest, both), ElementsAre(EventKind::Added));
}

TEST_F(GlobalWatcherTest, ChangesAreToldInOrderAndAQueryInsideTheCallbackShowsThem) {
  m_observer = std::make_shared<RecordingObserver>([this](ServiceWatcher&, const Event& event) {
    EXPECT_EQ(HostOf(event.id), event.kind == EventKind::Removed ? "-" : "ap-south:" + event.data.host());
    EXPECT_EQ(m_watcher->ListInstances().size(), event.kind == EventKind::Removed ? 0U : 1U);
  });
  Watch();
  const ServiceId id = Publish(kSouth, "first");
  ASSERT_TRUE(m_observer->AwaitHost(kSouth, id, "first"));
  Client(kSouth).Publish(kService, id, MakeInstance("second"));
  ASSERT_TRUE(m_observer->AwaitHost(kSouth, id, "second"));
  Client(kSouth).Unpublish(kService, id);
  ASSERT_TRUE(m_observer->Await(EventKind::Removed, kSouth, id));
  EXPECT_THAT(m_observer->History(kSouth, id),
              ElementsAre(EventKind::Added, EventKind::Modified, EventKind::Removed));
}

TEST_F(GlobalWatcherTest, AServerThatDiesAndReturnsCostsNoInstance) {
  const ServiceId kept = Publish(kWest, "kept");
  const ServiceId changed = Publish(kWest, "before");
  const ServiceId gone = Publish(kWest, "gone");
  Watch();
  ASSERT_TRUE(m_observer->Await(EventKind::Added, kWest, gone));
  Server(kWest).Kill();
  ASSERT_TRUE(AwaitFreshness(*WatcherOf(kWest), Freshness::Stale));
  EXPECT_THAT(m_watcher->ListInstances(), UnorderedElementsAre(kept, changed, gone));
  EXPECT_EQ(HostOf(kept), "eu-west:kept");
  const auto status = m_watcher->Status();
  ASSERT_EQ(status.size(), 3U);
  EXPECT_EQ(status[1].name, kWest);
  EXPECT_EQ(status[1].connection.state, ConnectionState::Suspended);
  EXPECT_TRUE(status[1].watcher.staleSince.has_value());
  EXPECT_EQ(status[2].watcher.freshness, Freshness::Live);
  const ServiceId elsewhere = Publish(kEast, "east");
  ASSERT_TRUE(m_observer->Await(EventKind::Added, kEast, elsewhere));

  Server(kWest).Start();
  ASSERT_TRUE(AwaitFreshness(*WatcherOf(kWest), Freshness::Live));
  EXPECT_EQ(m_observer->Count(EventKind::Removed), 0U);
  Client(kWest).Publish(kService, changed, MakeInstance("after"));
  Client(kWest).Unpublish(kService, gone);
  ASSERT_TRUE(m_observer->AwaitHost(kWest, changed, "after"));
  ASSERT_TRUE(m_observer->Await(EventKind::Removed, kWest, gone));
  EXPECT_THAT(m_observer->History(kWest, kept), ElementsAre(EventKind::Added));
}

TEST_F(GlobalWatcherTest, AnExpiredSessionCostsNoInstanceAndNoLaterChange) {
  const ServiceId kept = Publish(kEast, "kept");
  const ServiceId changed = Publish(kEast, "before");
  const ServiceId gone = Publish(kEast, "gone");
  Watch();
  const auto conn = m_watcher->GetConnection(kEast);
  const auto resyncs = WatcherOf(kEast)->Status().resyncs;
  conn->ForceExpire();
  Client(kEast).Publish(kService, changed, MakeInstance("after"));
  Client(kEast).Unpublish(kService, gone);
  ASSERT_TRUE(m_observer->AwaitHost(kEast, changed, "after"));
  ASSERT_TRUE(m_observer->Await(EventKind::Removed, kEast, gone));
  ASSERT_TRUE(Eventually([&] { return WatcherOf(kEast)->Status().resyncs > resyncs; }));
  EXPECT_EQ(conn->Status().expiries, 1U);
  EXPECT_EQ(conn->Status().sessions, 2U);
  Client(kEast).Publish(kService, changed, MakeInstance("in the new session"));
  ASSERT_TRUE(m_observer->AwaitHost(kEast, changed, "in the new session"));
  EXPECT_THAT(m_observer->History(kEast, kept), ElementsAre(EventKind::Added));
  EXPECT_EQ(m_observer->Count(EventKind::Removed), 1U);
}

TEST_F(GlobalWatcherTest, ADisconnectedDataCenterIsSilentUntilItIsConnectedAgain) {
  const ServiceId west = Publish(kWest, "west");
  const ServiceId east = Publish(kEast, "east");
  Watch();
  ASSERT_TRUE(m_observer->Await(EventKind::Added, kWest, west));
  EXPECT_TRUE(m_watcher->DisconnectDC(kWest));
  EXPECT_FALSE(m_watcher->HasConnection(kWest));
  EXPECT_FALSE(m_watcher->DisconnectDC(kWest));
  EXPECT_THAT(m_watcher->ListInstances(), ElementsAre(east));
  const ServiceId meanwhile = Publish(kWest, "meanwhile");
  Client(kEast).Unpublish(kService, east);
  ASSERT_TRUE(m_observer->Await(EventKind::Removed, kEast, east));
  EXPECT_THAT(m_observer->History(kWest, meanwhile), IsEmpty());
  EXPECT_THAT(m_observer->History(kWest, west), ElementsAre(EventKind::Added));

  m_observer->StartOver(kWest);
  EXPECT_TRUE(m_watcher->ConnectDC(kWest));
  EXPECT_FALSE(m_watcher->ConnectDC(kWest));
  ASSERT_TRUE(m_observer->Await(EventKind::Added, kWest, west, 2));
  ASSERT_TRUE(m_observer->Await(EventKind::Added, kWest, meanwhile));
  EXPECT_THAT(m_watcher->ListInstances(), UnorderedElementsAre(west, meanwhile));
}

TEST_F(GlobalWatcherTest, StoppedConnectionsTellNothingMoreButStillAnswer) {
  const ServiceId west = Publish(kWest, "west");
  Watch();
  ASSERT_TRUE(m_observer->Await(EventKind::Added, kWest, west));
  m_watcher->StopManagedConnections();
  const auto witness = std::make_shared<RecordingObserver>();
  const auto other = MakeWatcher(witness);
  other->StartManagedConnections();
  Client(kWest).Unpublish(kService, west);
  const ServiceId late = Publish(kWest, "late");
  ASSERT_TRUE(witness->Await(EventKind::Added, kWest, late));

  EXPECT_EQ(m_observer->Events().size(), 1U);
  EXPECT_THAT(m_watcher->ListInstances(), ElementsAre(west));
  EXPECT_EQ(HostOf(west), "eu-west:west");
  EXPECT_TRUE(m_watcher->HasConnection(kWest));
  EXPECT_TRUE(m_watcher->Close(kLimit));
  ASSERT_TRUE(AwaitFreshness(*WatcherOf(kWest), Freshness::Stale));
}

TEST_F(GlobalWatcherTest, DestructionInsideACallbackDoesNotWaitForItself) {
  struct Scene {
    std::unique_ptr<GlobalServiceWatcher> watcher;
    std::once_flag once;
    Happening destroyed;
  };
  const auto scene = std::make_shared<Scene>();
  // The callbacks of the other data centres wait for the one that destroys: it must not wait for them.
  const auto observer =
      std::make_shared<RecordingObserver>([scene](ServiceWatcher& watcher, const Event& event) {
        std::call_once(scene->once, [&] { scene->watcher.reset(); });
        ServiceInstanceData data;
        EXPECT_TRUE(watcher.GetInstanceData(event.id, data));
        scene->destroyed.Set();
      });
  scene->watcher = MakeWatcher(observer);
  scene->watcher->StartManagedConnections();
  ASSERT_TRUE(scene->watcher->AwaitSynchronized(kLimit));
  for (const auto* dcName : {kEast, kSouth, kWest}) Publish(dcName, "last");
  EXPECT_TRUE(scene->destroyed.Await());
}

}  // namespace
}  // namespace zr::halden::test
