// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <zookeeper/zookeeper.h>

#include <stdexcept>

#include "seam/seam_test.h"

namespace zr::halden::test {
namespace {

Lines Added(const std::string& dc, const std::string& ensemble) {
  return {dc + ": Connection([" + ensemble + "], true, '', 30000 ms)", "* " + dc + ": Start(null)",
          "* " + dc + ": ServiceWatcher(orders)", "* " + dc + ": RegisterWeak",
          "* " + dc + ": watcher Start"};
}

const std::string kFound = Info("DisconnectDC found matching connection, dc_name=east");

class ManagedConnections : public GlobalWatcherTest {
 protected:
  template <typename Operation>
  void ExpectMisuse(Operation&& operation, const Lines& lines) {
    for (const bool filtered : {false, true}) {
      zr::logging::SetMinimumLoggingLevel(filtered ? zr::logging::ZRLOG_ALERT : zr::logging::ZRLOG_INFO);
      try {
        operation();
        ADD_FAILURE() << "allowed";
      } catch (const details::ExceptionWrapper<HaldenErrorTag, std::runtime_error>& e) {
        EXPECT_STREQ(e.what(), "Invalid Library Usage");
      }
      EXPECT_EQ(m_journal.Take(), filtered ? Lines() : lines);
    }
  }
};

TEST_F(ManagedConnections, AreRefusedInApplicationManagedModeAlsoWhenNoLineIsLogged) {
  Make(false);
  m_watcher->AddConnection(MakeConnection("east"));
  m_journal.Take();
  const std::string only = " can only be called when application" + std::string(12, ' ');
  const std::string wants = only + "wants library to manage service watcher connections.";
  ExpectMisuse([&] { m_watcher->StartManagedConnections(); },
               {Log("error", "StartManagedConnections" + wants)});
  ExpectMisuse([&] { m_watcher->ConnectDC("east"); },
               {Info("ConnectDC called, dc_name=east"), Log("error", "ConnectDC" + wants)});
  ExpectMisuse([&] { m_watcher->StopManagedConnections(); },
               {Log("error", "StopManagedConnections" + only +
                                 "has setup library to manage service watcher connections.")});
}

TEST_F(ManagedConnections, StartMakesAConnectionForEveryEnsembleAndOnesMoreWhenCalledAgain) {
  Make(true, {{"east", "e1:2181,e2:2181/platform"}, {"west", "w:2181"}});
  const Lines east = Added("east", "e1:2181,e2:2181/platform");
  const Lines west = Added("west", "w:2181");
  for (int times = 0; times < 2; ++times) {
    m_watcher->StartManagedConnections();
    EXPECT_THAT(m_journal.Take(), AnyOf(east + west, west + east));
  }
  m_watcher->ListInstances();
  EXPECT_EQ(m_journal.Take().size(), 4u);
}

TEST_F(ManagedConnections, ConnectRefusesUnknownAndConnectedNamesWithoutMakingAConnection) {
  Make(true, {{"east", "e1:2181,e2:2181"}});
  const auto called = [](const std::string& dc) { return Info("ConnectDC called, dc_name=" + dc); };
  const Lines creating{called("east"), Info("ConnectDC creating new zookeeper connection with dc_name=east")};
  const std::string failed = "Error initializing ZooKeeper client during initial connection: ";
  const ZooError error(ZSYSTEMERROR);
  m_journal.m_actions["east: Start(null)"] = [&] { throw error; };
  EXPECT_THROW(m_watcher->ConnectDC("east"), ZooError);
  EXPECT_THAT(m_journal.Take(), ::testing::Contains("* " + Log("error", failed + error.what())));
  EXPECT_FALSE(GlobalServiceWatcher::IsLocked(*m_watcher));
  m_journal.m_actions.clear();
  EXPECT_TRUE(m_watcher->ConnectDC("east"));
  EXPECT_EQ(m_journal.Take(), creating + Added("east", "e1:2181,e2:2181"));
  EXPECT_FALSE(m_watcher->ConnectDC("east"));
  EXPECT_THAT(m_journal.Take(),
              ElementsAre(called("east"), Warning("ConnectDC already has a connection with dc_name=east")));
  for (const std::string unknown : {"East", "east ", ""}) {
    const std::string text = "ConnectDC doesn't have a zookeeper ensemble with dc_name=" + unknown;
    EXPECT_FALSE(m_watcher->ConnectDC(unknown));
    EXPECT_THAT(m_journal.Take(), ElementsAre(called(unknown), Warning(text)));
  }
}

TEST_F(ManagedConnections, DisconnectDetachesBeforeItStopsAndReleasesTheConnectionAfterTheLock) {
  MakeEastAndWest();
  EXPECT_TRUE(m_watcher->DisconnectDC("east"));
  EXPECT_THAT(m_journal.Take(), ElementsAre(kFound, "east: ForceExpire", "* east: UnregisterWeak",
                                            "* east: Stop", "* east: ~ServiceWatcher", "east: ~Connection"));
  EXPECT_FALSE(m_watcher->DisconnectDC("east"));
  EXPECT_THAT(m_journal.Take(),
              ElementsAre(Warning("DisconnectDC did not find matching connection, dc_name=east")));
  EXPECT_TRUE(m_watcher->HasConnection("west"));
  EXPECT_TRUE(m_watcher->ConnectDC("east"));
}

TEST_F(ManagedConnections, DisconnectOnlyExpiresWhatTheLibraryHasNoConfigurationFor) {
  for (const bool managed : {false, true}) {
    Make(managed);
    m_watcher->AddConnection(MakeConnection("east"));
    m_journal.Take();
    EXPECT_TRUE(m_watcher->DisconnectDC("east"));
    EXPECT_THAT(m_journal.Take(), ElementsAre(kFound, "east: ForceExpire"));
    EXPECT_EQ(WatcherOf("east").ObserverCount(), 1u);
  }
}

TEST_F(ManagedConnections, DisconnectReportsAnEntryThatWentBetweenItsTwoLocks) {
  MakeEastAndWest();
  m_journal.m_actions["east: ForceExpire"] = [&] {
    m_watcher->RemoveConnection(m_watcher->GetConnection("east"));
  };
  const std::string text = "DisconnectDC did not find matching connection during cleanup, dc_name=east";
  EXPECT_FALSE(m_watcher->DisconnectDC("east"));
  EXPECT_THAT(m_journal.Take(), ElementsAre(kFound, "east: ForceExpire", "* east: ~ServiceWatcher",
                                            "* " + Warning(text), "east: ~Connection"));
}

TEST_F(ManagedConnections, StopDetachesAndStopsEveryOneEveryTimeAndLeavesThemRegistered) {
  MakeEastAndWest();
  const Lines east{"* east: UnregisterWeak", "* east: Stop"};
  const Lines west{"* west: UnregisterWeak", "* west: Stop"};
  for (int times = 0; times < 2; ++times) {
    m_watcher->StopManagedConnections();
    EXPECT_THAT(m_journal.Take(), AnyOf(east + west, west + east));
    EXPECT_EQ(WatcherOf("east").ObserverCount(), 0u);
  }
  EXPECT_FALSE(m_watcher->ConnectDC("west"));
  EXPECT_TRUE(m_watcher->DisconnectDC("west"));
}

}  // namespace
}  // namespace zr::halden::test
