// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <zookeeper/zookeeper.h>

#include <stdexcept>
#include <thread>

#include "seam/seam_test.h"
#include "support/await.h"

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

  /// Makes `step` throw for the second data centre that comes to it, whichever that is.
  void FailTheSecond(const std::string& step) {
    for (const char* dc : {"east: ", "west: ", "north: "}) {
      m_journal.m_actions[dc + step] = [reached = m_reached] {
        if (++*reached == 2) throw ZooError(ZCONNECTIONLOSS);
      };
    }
  }

  const std::shared_ptr<int> m_reached = std::make_shared<int>(0);
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

TEST_F(ManagedConnections, AFailedStartLeavesTheEarlierOnesConnectedAndTriesNoMore) {
  Make(true, {{"east", "e:2181"}, {"west", "w:2181"}, {"north", "n:2181"}});
  FailTheSecond("Start(null)");
  EXPECT_THROW(m_watcher->StartManagedConnections(), ZooError);
  const Lines lines = m_journal.Take();  // five steps of one that succeeded, four of one that failed
  ASSERT_EQ(lines.size(), 9u);
  const std::string first = lines.front().substr(0, lines.front().find(':'));
  const std::string failed = lines.back().substr(0, lines.back().find(':'));
  EXPECT_EQ(lines[4], "* " + first + ": watcher Start");
  EXPECT_EQ(lines[6], "* " + failed + ": Start(null)");
  EXPECT_EQ(lines[8], failed + ": ~Connection");
  EXPECT_TRUE(m_watcher->HasConnection(first));
  EXPECT_FALSE(m_watcher->HasConnection(failed));
}

TEST_F(ManagedConnections, ConnectRefusesUnknownAndConnectedNamesWithoutMakingAConnection) {
  Make(true, {{"east", "e1:2181,e2:2181"}});
  const auto called = [](const std::string& dc) { return Info("ConnectDC called, dc_name=" + dc); };
  const Lines creating{called("east"), Info("ConnectDC creating new zookeeper connection with dc_name=east")};
  for (const char* step : {"east: Connection([e1:2181,e2:2181], true, '', 30000 ms)", "east: Start(null)"}) {
    LinesOfFailure(step, ZooError(ZSYSTEMERROR), [&] { m_watcher->ConnectDC("east"); });
  }
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

TEST_F(ManagedConnections, DisconnectCleansUpWhateverHasTheNameByThen) {
  MakeEastAndWest();
  const auto expired = m_watcher->GetConnection("east");
  m_journal.m_actions["east: ForceExpire"] = [&] {
    m_watcher->RemoveConnection(expired);
    m_watcher->AddConnection(MakeConnection("east"));
    m_journal.Take();
  };
  EXPECT_TRUE(m_watcher->DisconnectDC("east"));
  const auto lines = m_journal.Take();
  EXPECT_EQ(Lines(lines.begin(), lines.begin() + 2), (Lines{"* east: UnregisterWeak", "* east: Stop"}));
  EXPECT_FALSE(m_watcher->HasConnection("east"));
}

TEST_F(ManagedConnections, AFailureInDisconnectLeavesTheEntryInPlace) {
  MakeEastAndWest();
  const auto disconnect = [&] { m_watcher->DisconnectDC("east"); };
  Lines expected{kFound, "east: ForceExpire"};
  EXPECT_EQ(LinesOfFailure("east: ForceExpire", ZooError(ZCLOSING), disconnect), expected);
  for (const std::string step : {"east: UnregisterWeak", "east: Stop"}) {
    expected.push_back("* " + step);
    EXPECT_EQ(LinesOfFailure(step, ZooError(ZCLOSING), disconnect), expected);
  }
  EXPECT_TRUE(m_watcher->HasConnection("east"));
}

TEST_F(ManagedConnections, DisconnectWaitsForARelayBeforeItStops) {
  MakeEastAndWest();
  Happening inside;
  Happening detaching;
  const auto observer = std::make_shared<AddressObserver>();
  observer->m_then = [&] {
    inside.Set();
    EXPECT_TRUE(detaching.Await());
    m_journal.Step("the observer leaves");
  };
  m_watcher->RegisterShared(observer);
  m_journal.m_isLocked = nullptr;
  m_journal.m_actions["east: UnregisterWeak"] = [&] { detaching.Set(); };
  ServiceWatcher& east = WatcherOf("east");
  std::thread relay([&] { east.Raise(&ServiceWatcherObserver::OnInstanceRemoved, ServiceId{}); });
  EXPECT_TRUE(inside.Await());
  EXPECT_TRUE(m_watcher->DisconnectDC("east"));
  relay.join();
  EXPECT_THAT(m_journal.Take(),
              ElementsAre(kFound, "east: ForceExpire", "east: UnregisterWeak", "the observer leaves",
                          "east: Stop", "east: ~ServiceWatcher", "east: ~Connection"));
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

TEST_F(ManagedConnections, AFailureInStopLeavesTheRestAsItIs) {
  for (const std::string step : {"UnregisterWeak", "Stop"}) {
    MakeEastAndWest();
    *m_reached = 0;
    FailTheSecond(step);
    EXPECT_THROW(m_watcher->StopManagedConnections(), ZooError);
    EXPECT_EQ(m_journal.Take().size(), step == "Stop" ? 4u : 3u);
    EXPECT_EQ(WatcherOf("east").ObserverCount() + WatcherOf("west").ObserverCount(),
              step == "Stop" ? 0u : 1u);
    EXPECT_FALSE(GlobalServiceWatcher::IsLocked(*m_watcher));
    m_journal.m_actions.clear();
  }
}

}  // namespace
}  // namespace zr::halden::test
