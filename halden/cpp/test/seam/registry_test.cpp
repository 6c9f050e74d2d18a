// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <zookeeper/zookeeper.h>

#include <utility>

#include "seam/seam_test.h"

namespace zr::halden::test {
namespace {

using ConnectionRegistry = GlobalWatcherTest;

const Lines kAdded{"* east: ServiceWatcher(orders)", "* east: RegisterWeak", "* east: watcher Start"};
const Lines kStartedAndAdded = Lines{"* east: Start(null)"} + kAdded;

TEST_F(ConnectionRegistry, AddingWiresTheServiceWatcherOnceBeforeItStartsAndUnderTheLock) {
  int code = 0;
  m_handler = [&](int error) { code = error; };
  Make(true);
  const auto conn = MakeConnection("east");
  m_watcher->AddConnection(conn);
  m_watcher->AddConnection(conn);
  EXPECT_EQ(m_journal.Take(), kStartedAndAdded);
  EXPECT_EQ(m_watcher->GetConnection("east"), conn);
  const auto another = MakeConnection("west");
  m_watcher->AddConnection(another);
  for (const auto& added : {conn, another}) {  // each has a copy
    added->m_watcher->m_errorHandler(ZNOAUTH);
    EXPECT_EQ(std::exchange(code, 0), ZNOAUTH);
  }
}

TEST_F(ConnectionRegistry, AnApplicationsConnectionIsNotStarted) {
  Make(false);
  const auto conn = MakeConnection("east");
  m_watcher->AddConnection(conn);
  EXPECT_EQ(m_journal.Take(), kAdded);
  EXPECT_FALSE(conn->m_watcher->m_errorHandler) << "an empty handler is passed on empty";
}

TEST_F(ConnectionRegistry, EntriesAreToldApartByObjectAndFoundByTheWholeName) {
  Make(false);
  const zr::String name("ea\0st", 5);
  const auto first = MakeConnection(name);
  const auto second = MakeConnection(name);
  m_watcher->AddConnection(first);
  m_watcher->AddConnection(second);
  for (const char* other : {"", "ea", "east"}) EXPECT_FALSE(m_watcher->HasConnection(other)) << other;
  EXPECT_FALSE(m_watcher->HasConnection(name + " "));
  EXPECT_FALSE(m_watcher->HasConnection({"EA\0st", 5}));
  EXPECT_TRUE(m_watcher->HasConnection(name));
  m_watcher->RemoveConnection(first);
  EXPECT_EQ(m_watcher->GetConnection(name), second);
  m_watcher->RemoveConnection(second);
  EXPECT_EQ(m_watcher->GetConnection(name), nullptr);
}

TEST_F(ConnectionRegistry, RemovingOnlyDropsTheEntryAndItCanBeAddedAnew) {
  Make(true);
  const auto conn = MakeConnection("east");
  m_watcher->AddConnection(conn);
  m_journal.Take();
  m_watcher->RemoveConnection(nullptr);
  m_watcher->RemoveConnection(conn);
  m_watcher->RemoveConnection(conn);
  EXPECT_THAT(m_journal.Take(), ElementsAre("* east: ~ServiceWatcher"));
  m_watcher->AddConnection(conn);
  EXPECT_EQ(m_journal.Take(), kStartedAndAdded);
}

using GlobalWatcherLifetime = GlobalWatcherTest;

TEST_F(GlobalWatcherLifetime, ARejectedConfigurationIsLoggedAndItsGoodEntriesAreKept) {
  g_config = {false, {{"east", "e:2181"}, {"west", "w:2181"}}};
  Construct(true);
  EXPECT_THAT(
      m_journal.Take(),
      ElementsAre("ParseZooKeeperConfig(zk.toml)",
                  Warning("failed to process zookeeper config: zk.tomlService watch is not set for: orders"),
                  Info("global service watcher created, name=orders, managed_service=1, ensembles_size=2")));
  EXPECT_TRUE(m_watcher->ConnectDC("west"));

  m_watcher.reset();
  m_journal.Take();
  zr::logging::SetMinimumLoggingLevel(zr::logging::ZRLOG_ERROR);
  Construct(true);
  EXPECT_THAT(m_journal.Take(), ElementsAre("ParseZooKeeperConfig(zk.toml)"));
}

TEST_F(GlobalWatcherLifetime, DestructionReleasesWithoutStoppingOrUnregistering) {
  MakeEastAndWest();
  WatcherOf("east").m_instances = {{ServiceId{}, {}}};
  std::shared_ptr<ServiceWatcher> kept;
  ServiceInstanceData data;
  ASSERT_TRUE(m_watcher->GetInstanceData(ServiceId{}, kept, data));
  m_journal.Take();
  m_watcher.reset();
  EXPECT_THAT(m_journal.Take(), ElementsAre("west: ~ServiceWatcher", "west: ~Connection"));
  EXPECT_EQ(kept->ObserverCount(), 1u) << "a registration is left, but a weak one";
  kept->Raise(&ServiceWatcherObserver::OnInstanceRemoved, ServiceId{});
}

const ServiceId kFirst{{1}};
const ServiceId kSecond{{2}};
const ServiceId kThird{{3}};

class InstancesOfAll : public GlobalWatcherTest {
 protected:
  void MakeWithInstances() {
    MakeEastAndWest();
    ServiceInstanceData data;
    data.set_host("east");
    WatcherOf("east").m_instances = {{kSecond, data}, {kFirst, data}};
    data.set_host("west");
    WatcherOf("west").m_instances = {{kThird, data}, {kFirst, data}};
  }
};

TEST_F(InstancesOfAll, AreListedPerDataCenterNeitherSortedNorMerged) {
  MakeWithInstances();
  EXPECT_THAT(m_watcher->ListInstances(), AnyOf(ElementsAre(kSecond, kFirst, kThird, kFirst),
                                                ElementsAre(kThird, kFirst, kSecond, kFirst)));
  EXPECT_THAT(m_journal.Take(),
              ::testing::UnorderedElementsAre("* east: ListInstances", "* west: ListInstances"));
}

TEST_F(InstancesOfAll, DataComesFromTheFirstThatKnowsTheInstanceAndNoOtherIsAsked) {
  MakeWithInstances();
  std::shared_ptr<ServiceWatcher> watcher;
  ServiceInstanceData data;
  ASSERT_TRUE(m_watcher->GetInstanceData(kFirst, watcher, data));
  EXPECT_THAT(m_journal.Take(), ElementsAre("* " + data.host() + ": GetInstanceData"));
  EXPECT_EQ(watcher.get(), &WatcherOf(data.host()));
  EXPECT_TRUE(m_watcher->GetInstanceData(kThird, watcher, data));
  EXPECT_EQ(watcher.get(), &WatcherOf("west"));
  EXPECT_TRUE(m_watcher->GetInstanceData(kSecond, watcher, data));
  EXPECT_FALSE(m_watcher->GetInstanceData(ServiceId{}, watcher, data));
  EXPECT_EQ(watcher.get(), &WatcherOf("east")) << "one that nobody knows must leave it";
  EXPECT_EQ(data.host(), "east");
}

}  // namespace
}  // namespace zr::halden::test
