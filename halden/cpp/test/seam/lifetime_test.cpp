// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <stdexcept>

#include "seam/seam_test.h"

namespace zr::halden::test {
namespace {

using GlobalWatcherLifetime = GlobalWatcherTest;

TEST_F(GlobalWatcherLifetime, ApplicationManagedReadsNoConfiguration) {
  g_config = {false, {{"east", "e:2181"}}};
  Construct(false);
  EXPECT_THAT(
      m_journal.Take(),
      ElementsAre(Info("global service watcher created, name=orders, managed_service=0, ensembles_size=0")));
}

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

TEST_F(GlobalWatcherLifetime, OneThatNobodySharesRefusesToRegisterItself) {
  GlobalServiceWatcherImpl unshared(m_facade, "orders", false, "", m_handler);
  const auto conn = MakeConnection("east");
  EXPECT_THROW(unshared.AddConnection(conn), std::bad_weak_ptr);
  EXPECT_THAT(m_journal.Take(), ElementsAre("east: ServiceWatcher(orders)", "east: ~ServiceWatcher"));
  EXPECT_FALSE(unshared.HasConnection("east"));
}

TEST_F(GlobalWatcherLifetime, OneThatNobodySharesAnyMoreStopsNothingAndKeepsItsEntries) {
  g_config = {true, {{"east", "e:2181"}}};
  GlobalServiceWatcherImpl watcher(m_facade, "orders", true, "zk.toml", m_handler);
  {
    const std::shared_ptr<GlobalServiceWatcherImpl> owner(&watcher, [](auto*) {});
    watcher.StartManagedConnections();
  }
  m_journal.Take();
  EXPECT_THROW(watcher.StopManagedConnections(), std::bad_weak_ptr);
  EXPECT_THROW(watcher.DisconnectDC("east"), std::bad_weak_ptr);
  EXPECT_THAT(m_journal.Take(),
              ElementsAre(Info("DisconnectDC found matching connection, dc_name=east"), "east: ForceExpire"));
  EXPECT_TRUE(watcher.HasConnection("east"));
}

}  // namespace
}  // namespace zr::halden::test
