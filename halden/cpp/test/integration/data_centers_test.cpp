// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "halden/event_queue.h"
#include "halden/global_service_watcher.h"
#include "halden/service_publisher.h"
#include "halden/testing/temporary_folder.h"
#include "support/await.h"
#include "support/capturing_log.h"
#include "support/ensemble_test.h"
#include "support/recording_observer.h"

namespace zr::halden::test {
namespace {

using ::testing::ElementsAre;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;
using ::testing::UnorderedElementsAreArray;

/// What a status handler was told since it was last asked for.
class States {
 public:
  static DataCenterStatusHandler Handler(const std::shared_ptr<States>& states) {
    return [states](const DataCenterStatus& status) {  // shared: a last call may outlive the watcher
      const std::lock_guard lock(states->m_mtx);
      states->m_all.push_back(status);
    };
  }

  ::testing::AssertionResult Await(const zr::String& dcName, ConnectionState state, Freshness freshness) {
    return Eventually([&] {
      const std::lock_guard lock(m_mtx);
      const bool told = std::any_of(m_all.begin(), m_all.end(), [&](const DataCenterStatus& status) {
        return status.name == dcName && status.connection.state == state &&
               status.watcher.freshness == freshness;
      });
      if (told) m_all.clear();
      return told;
    });
  }

 private:
  std::mutex m_mtx;
  std::vector<DataCenterStatus> m_all;  // guarded by m_mtx
};

class DataCentersTest : public EnsembleTest {
 protected:
  /// What the queue hands out next but for states.
  static std::optional<ServiceEvent> Next(EventQueue& events, std::chrono::milliseconds limit = kLimit) {
    auto event = events.PopFor(limit);
    while (event && !event->IsInstance()) event = events.PopFor(limit);
    return event;
  }

  std::shared_ptr<States> m_states = std::make_shared<States>();
};

TEST_F(DataCentersTest, ChangesAreToldInOrderAQueryInsideTheCallbackShowsThemAndStopEndsThem) {
  GlobalServiceWatcher watcher(kService, LibraryManaged{WriteConfig({kDc})});
  const auto observer = std::make_shared<RecordingObserver>([&](ServiceWatcher&, const Event& event) {
    std::shared_ptr<ServiceWatcher> found;
    ServiceInstanceData data;
    const bool there = event.kind != EventKind::Removed;
    EXPECT_EQ(watcher.GetInstanceData(event.id, found, data), there);
    EXPECT_EQ(data.host(), event.data.host());
    EXPECT_EQ(watcher.ListInstances().size(), there ? 1U : 0U);
  });
  watcher.RegisterWeak(observer);
  watcher.StartManagedConnections();
  ASSERT_TRUE(watcher.AwaitSynchronized(kLimit));
  const ServiceId id = Publish(kDc, "first");
  ASSERT_TRUE(observer->AwaitHost(kDc, id, "first"));
  Client(kDc).Publish(kService, id, MakeInstance("second"));
  ASSERT_TRUE(observer->AwaitHost(kDc, id, "second"));
  Client(kDc).Unpublish(kService, id);
  ASSERT_TRUE(observer->Await(EventKind::Removed, kDc, id));
  EXPECT_THAT(observer->History(kDc, id),
              ElementsAre(EventKind::Added, EventKind::Modified, EventKind::Removed));
  const ServiceId kept = Publish(kDc, "kept");
  ASSERT_TRUE(observer->Await(EventKind::Added, kDc, kept));
  watcher.StopManagedConnections();
  Client(kDc).Unpublish(kService, kept);
  ASSERT_TRUE(watcher.Close(kLimit));
  EXPECT_THAT(watcher.ListInstances(), ElementsAre(kept));
  EXPECT_THAT(observer->History(kDc, kept), ElementsAre(EventKind::Added));
  EXPECT_EQ(watcher.Status()[0].watcher.freshness, Freshness::Stale);
}

TEST_F(DataCentersTest, WhatAPublisherProtectsAsTheConfigurationSaysItPublishesAgainWithANewCredential) {
  const TemporaryFolder folder;
  const auto write = [&](const char* name, const std::string& text) {
    std::ofstream(folder.Path() / name) << text;
    std::filesystem::permissions(folder.Path() / name, std::filesystem::perms(0600));
    return (folder.Path() / name).string();
  };
  write("a.auth", "digest:old:secret-word\n");
  const auto config =
      "[data_centers.eu-west]\nhosts = '" + ConnectString(kDc) + "'\nauth_file = 'a.auth'\nacl = 'creator'\n";
  GlobalServiceWatcher watcher(kService, LibraryManaged{write("halden.toml", config)});
  watcher.StartManagedConnections();
  ASSERT_TRUE(watcher.AwaitSynchronized(kLimit));
  auto publisher = watcher.MakePublisher(kDc);
  const auto path = ZooKeeperClient::InstancePath(kService, publisher.Id());
  publisher.Publish(MakeInstance("host"));
  ASSERT_TRUE(publisher.AwaitPublished(kLimit));
  EXPECT_THROW(Client(kDc).Set(path, "evil"), ZooError);
  write("a.auth", "digest:new:secret-word\n");
  watcher.GetConnection(kDc)->ForceExpire();
  ASSERT_TRUE(Eventually([&] { return publisher.Status().published == 2; }));
  ASSERT_TRUE(publisher.AwaitPublished(kLimit));
  Client(kDc).Authenticate("digest", "old:secret-word");
  EXPECT_THROW(Client(kDc).Set(path, "evil"), ZooError);
  Client(kDc).Authenticate("digest", "new:secret-word");
  EXPECT_NO_THROW(Client(kDc).SetAccess(path, Access::Creator));
}

TEST_F(DataCentersTest, EachDataCentersStateIsToldAndCanBeAwaitedApart) {
  StartServers({kDc, "us-east"});
  Server("us-east").Stop();
  GlobalServiceWatcher watcher(kService, LibraryManaged{WriteConfig({kDc, "us-east"})});
  EXPECT_FALSE(watcher.AwaitSynchronized(kLimit)) << "there is nothing to wait for yet";
  watcher.SetStatusHandler(States::Handler(m_states));
  watcher.StartManagedConnections();
  EXPECT_TRUE(watcher.AwaitSynchronized({kDc}, kUnlessWoken));
  EXPECT_TRUE(m_states->Await(kDc, ConnectionState::Connected, Freshness::Live));
  EXPECT_FALSE(watcher.AwaitSynchronized({kDc, "us-east"}, std::chrono::milliseconds(1)));
  EXPECT_FALSE(watcher.AwaitSynchronized({"nowhere"}, kLimit)) << "has no connection: no use waiting";
  Publish(kDc, "host");
  m_states = std::make_shared<States>();
  watcher.SetStatusHandler(States::Handler(m_states));  // in place of the other, for watchers that there are
  Server(kDc).Kill();
  EXPECT_TRUE(m_states->Await(kDc, ConnectionState::Suspended, Freshness::Stale));
  Server(kDc).Start();
  EXPECT_TRUE(m_states->Await(kDc, ConnectionState::Connected, Freshness::Live));
  Server("us-east").Start();
  const auto events = std::make_shared<EventQueue>();
  GlobalServiceWatcher moved(kService, LibraryManaged{WriteConfig({kDc, "us-east"})});
  moved.RegisterShared(events);
  moved.StartManagedConnections();
  std::swap(watcher, moved);
  EXPECT_TRUE(watcher.AwaitDelivered(kLimit));
  std::vector<zr::String> synchronized;
  for (const auto& event : events->Drain()) {
    const bool added = event.kind == ServiceEvent::Kind::Added;
    EXPECT_FALSE(added && std::ranges::count(synchronized, event.dcName) != 0);
    if (event.kind == ServiceEvent::Kind::Synchronized) synchronized.push_back(event.dcName);
  }
  EXPECT_THAT(synchronized, UnorderedElementsAre(kDc, "us-east"));
  watcher = std::move(moved);
  EXPECT_TRUE(watcher.AwaitSynchronized(kLimit));
  const auto instances = watcher.Snapshot();
  ASSERT_THAT(instances, SizeIs(1));
  EXPECT_EQ(instances[0].dcName + " " + instances[0].data.host(), "eu-west host");
  EXPECT_EQ(instances[0].freshness, Freshness::Live);
  const auto status = watcher.Status();
  ASSERT_THAT(status, SizeIs(2));
  const DataCenterCounters counters = status[0].Counters();
  EXPECT_EQ(counters.sessions, 1U);
  EXPECT_EQ(counters.instances, 1U);
  EXPECT_GE(counters.reconnects, 1U);
  EXPECT_TRUE(watcher.DisconnectDC("us-east"));
  EXPECT_TRUE(watcher.ConnectDC("us-east"));
  EXPECT_TRUE(m_states->Await("us-east", ConnectionState::Connected, Freshness::Live)) << "settings hold on";
  ASSERT_TRUE(watcher.Close(kLimit));
  EXPECT_TRUE(m_states->Await(kDc, ConnectionState::Stopped, Freshness::Stale))
      << "not told before Close ends";
}

TEST_F(DataCentersTest, WhoComesBackFromAMassRemovalWasNeverGone) {
  const auto conn = MakeConnection(kDc);
  conn->Start(nullptr);
  const auto events = std::make_shared<EventQueue>();
  GlobalServiceWatcher watcher(kService, ApplicationManaged{});
  watcher.RegisterShared(events);
  watcher.SetStatusHandler(States::Handler(m_states));
  watcher.SetMassRemovalGuard(MassRemovalGuard{0.5, std::chrono::milliseconds(4000)});
  watcher.AddConnection(conn);
  auto session = MakeClient(kDc);
  std::vector<ServiceId> ids(20);
  const std::string bytes = EncodeInstance(MakeInstance("same"));
  for (auto& id : ids) {
    id = MakeServiceId();
    session->PublishRaw(kService, id, bytes, NodeKind::Ephemeral);
  }
  for (const auto& id : ids) ASSERT_TRUE(Next(*events)) << id;

  session.reset();                   // ends: all its nodes go in one transaction
  const auto alone = Next(*events);  // the first one cannot be known to be one of many
  ASSERT_TRUE(alone && alone->kind == ServiceEvent::Kind::Removed);
  std::erase(ids, alone->id);
  ASSERT_TRUE(Eventually([&] { return watcher.Status()[0].watcher.held == 19; }));
  EXPECT_THAT(watcher.ListInstances(), UnorderedElementsAreArray(ids));
  EXPECT_THAT(watcher.Watchers()[0]->ListHeldInstances(), UnorderedElementsAreArray(ids));
  for (std::size_t i = 0; i < 5; ++i) Client(kDc).PublishRaw(kService, ids[i], bytes);
  for (int i = 0; i < 14; ++i) {
    const auto event = Next(*events);
    ASSERT_TRUE(event && event->kind == ServiceEvent::Kind::Removed) << i;
  }
  ids.resize(5);
  EXPECT_THAT(watcher.ListInstances(), UnorderedElementsAreArray(ids));
  EXPECT_EQ(watcher.Status()[0].watcher.held, 0U);
  EXPECT_FALSE(Next(*events, std::chrono::milliseconds(1)));
}

}  // namespace
}  // namespace zr::halden::test
