// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <zookeeper/zookeeper.h>

#include <algorithm>
#include <stdexcept>
#include <thread>
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

TEST_F(ConnectionRegistry, AFailureRegistersNothingAndOnlyThatOfAStartIsLogged) {
  Make(true);
  const auto conn = MakeConnection("east");
  const auto add = [&] { m_watcher->AddConnection(conn); };
  const ZooError error(ZBADARGUMENTS, "no host");
  const std::string text = "Error initializing ZooKeeper client during initial connection: ";
  EXPECT_THAT(LinesOfFailure("east: Start(null)", error, add),
              ElementsAre("* east: Start(null)", "* " + Log("error", text + error.what())));
  EXPECT_THAT(LinesOfFailure("east: Start(null)", std::runtime_error("other"), add),
              ElementsAre("* east: Start(null)"));
  EXPECT_FALSE(m_watcher->HasConnection("east"));
  for (std::size_t failing = 1; failing < kStartedAndAdded.size(); ++failing) {
    Lines expected(kStartedAndAdded.begin(),
                   kStartedAndAdded.begin() + static_cast<std::ptrdiff_t>(failing) + 1);
    if (failing > 1) expected.emplace_back("* east: ~ServiceWatcher");
    EXPECT_EQ(LinesOfFailure(kStartedAndAdded[failing].substr(2), error, add), expected);
    EXPECT_FALSE(m_watcher->HasConnection("east"));
  }
  m_watcher->AddConnection(conn);
  EXPECT_TRUE(m_watcher->HasConnection("east"));
  EXPECT_THROW(m_watcher->AddConnection(nullptr), std::invalid_argument);
}

TEST_F(ConnectionRegistry, ThreadsThatShareItNeitherRaceNorMakeAnEntryTwice) {
  Make(false);
  m_journal.m_isLocked = nullptr;
  const auto shared = MakeConnection("shared");
  const auto work = [&](const std::shared_ptr<Connection>& own) {
    for (int i = 0; i < 100; ++i) {
      m_watcher->AddConnection(shared);
      m_watcher->AddConnection(own);
      EXPECT_TRUE(m_watcher->DisconnectDC("shared"));
      EXPECT_EQ(m_watcher->GetConnection(own->GetDCName()), own);
      EXPECT_THAT(m_watcher->ListInstances(), IsEmpty());
      own->m_watcher->Raise(&ServiceWatcherObserver::OnInstanceRemoved, ServiceId{});
      m_watcher->RemoveConnection(own);
    }
  };
  const auto east = MakeConnection("east");
  const auto west = MakeConnection("west");
  std::thread other(work, east);
  work(west);
  other.join();
  const Lines lines = m_journal.Take();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "shared: ServiceWatcher(orders)"), 1);
}

}  // namespace
}  // namespace zr::halden::test
