// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <algorithm>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "halden/event_queue.h"
#include "halden/global_service_watcher.h"
#include "support/await.h"
#include "support/capturing_log.h"
#include "support/ensemble_test.h"
#include "support/recording_observer.h"

namespace zr::halden::test {
namespace {

using ::testing::ElementsAre;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAreArray;

constexpr const char* kDc = "eu-west";

/// What a status handler was told, newest last.
class States {
 public:
  static DataCenterStatusHandler Handler(const std::shared_ptr<States>& states) {
    return [states](const DataCenterStatus& status) {  // shared: a last call may outlive the watcher
      const std::lock_guard lock(states->m_mtx);
      states->m_all.push_back(status);
      states->m_told.notify_all();
    };
  }

  ::testing::AssertionResult Await(const zr::String& dcName, ConnectionState state, Freshness freshness) {
    std::unique_lock lock(m_mtx);
    const auto told = [&] {
      return std::any_of(m_all.begin(), m_all.end(), [&](const DataCenterStatus& status) {
        return status.name == dcName && status.connection.state == state &&
               status.watcher.freshness == freshness;
      });
    };
    const bool seen = m_told.wait_for(lock, kLimit, told);
    m_all.clear();
    return seen ? ::testing::AssertionSuccess()
                : ::testing::AssertionFailure()
                      << dcName << " never told as " << ToString(state) << ", " << ToString(freshness);
  }

 private:
  std::mutex m_mtx;
  std::condition_variable m_told;
  std::vector<DataCenterStatus> m_all;  // guarded by m_mtx
};

class DataCenterStatusTest : public EnsembleTest {
 protected:
  const std::shared_ptr<States> m_states = std::make_shared<States>();
};

TEST_F(DataCenterStatusTest, EachDataCentersStateIsToldAndCanBeAwaitedApart) {
  StartServers({kDc, "us-east"});
  Server("us-east").Stop();
  GlobalServiceWatcher watcher(kService, LibraryManaged{WriteConfig({kDc, "us-east"})});
  watcher.SetStatusHandler(States::Handler(m_states));
  watcher.StartManagedConnections();
  EXPECT_TRUE(watcher.AwaitSynchronized({kDc}, kLimit));
  EXPECT_TRUE(m_states->Await(kDc, ConnectionState::Connected, Freshness::Live));
  EXPECT_FALSE(watcher.AwaitSynchronized({kDc, "us-east"}, std::chrono::milliseconds(1)));
  EXPECT_FALSE(watcher.AwaitSynchronized({"nowhere"}, kLimit)) << "has no connection: no use waiting";
  Publish(kDc, "host");
  Server(kDc).Kill();
  EXPECT_TRUE(m_states->Await(kDc, ConnectionState::Suspended, Freshness::Stale));
  Server(kDc).Start();
  EXPECT_TRUE(m_states->Await(kDc, ConnectionState::Connected, Freshness::Live));
  Server("us-east").Start();
  EXPECT_TRUE(watcher.AwaitSynchronized(kLimit));
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

TEST_F(DataCenterStatusTest, WhoComesBackFromAMassRemovalWasNeverGone) {
  const auto conn = MakeConnection(kDc);
  conn->Start(nullptr);
  const auto events = std::make_shared<EventQueue>();
  GlobalServiceWatcher watcher(kService, ApplicationManaged{});
  watcher.RegisterShared(events);
  watcher.SetStatusHandler(States::Handler(m_states));
  watcher.SetMassRemovalGuard(MassRemovalGuard{0.5, std::chrono::milliseconds(4000)});
  watcher.AddConnection(conn);
  Publish(kDc, "stays");
  auto session = MakeClient(kDc);
  std::vector<ServiceId> ids(20);
  const std::string bytes = EncodeInstance(MakeInstance("same"));
  for (auto& id : ids) {
    id = MakeServiceId();
    session->PublishRaw(kService, id, bytes, NodeKind::Ephemeral);
  }
  for (int added = 0; added < 21; ++added) ASSERT_TRUE(events->PopFor(kLimit)) << added;

  session.reset();                            // ends: all its nodes go in one transaction
  const auto alone = events->PopFor(kLimit);  // the first one cannot be known to be one of many
  ASSERT_TRUE(alone && alone->change == InstanceChange::Removed);
  std::erase(ids, alone->id);
  ASSERT_TRUE(Eventually([&] { return watcher.Status()[0].watcher.held == 19; }));
  EXPECT_THAT(watcher.ListInstances(), SizeIs(20));
  EXPECT_THAT(watcher.Watchers()[0]->ListHeldInstances(), UnorderedElementsAreArray(ids));
  for (std::size_t i = 0; i < 5; ++i) Client(kDc).PublishRaw(kService, ids[i], bytes);
  for (std::size_t i = 5; i < 8; ++i) Client(kDc).Publish(kService, ids[i], MakeInstance("changed"));
  Client(kDc).PublishRaw(kService, ids[8], "garbage");  // another node, bad from the start: it is gone
  ASSERT_TRUE(Eventually([&] { return watcher.Status()[0].watcher.quarantined == 1; }));
  Client(kDc).PublishRaw(kService, ids[8], bytes);  // and here again: not to be removed with the rest
  std::map<InstanceChange, int> counts;
  for (int i = 0; i < 15; ++i) {
    const auto event = events->PopFor(kLimit);
    ASSERT_TRUE(event) << i;
    ++counts[event->change];
  }
  EXPECT_THAT(counts, ElementsAre(std::pair(InstanceChange::Added, 1), std::pair(InstanceChange::Modified, 3),
                                  std::pair(InstanceChange::Removed, 11)));
  EXPECT_THAT(watcher.ListInstances(), SizeIs(10));
  EXPECT_EQ(watcher.Status()[0].watcher.held, 0U);
  EXPECT_FALSE(events->PopFor(std::chrono::milliseconds(1)));
}

TEST_F(DataCenterStatusTest, AQueueLearnsOfRemovalsThatAnObserverCutShortOrNobodySaw) {
  const CapturingLog log;
  const ServiceId cutShort = Publish(kDc, "cut short");
  const auto events = std::make_shared<EventQueue>();
  GlobalServiceWatcher watcher(kService, LibraryManaged{WriteConfig({kDc})});
  watcher.RegisterShared(std::make_shared<RecordingObserver>([](ServiceWatcher&, const Event& event) {
    if (event.kind == EventKind::Removed) throw std::runtime_error("on purpose");
  }));
  watcher.RegisterShared(events);
  watcher.StartManagedConnections();
  ASSERT_TRUE(events->PopFor(kLimit));
  const auto removed = [&] {
    const auto event = events->PopFor(kLimit);
    return event && event->change == InstanceChange::Removed ? event->id : ServiceId{};
  };
  Client(kDc).Unpublish(kService, cutShort);
  EXPECT_EQ(removed(), cutShort);
  EXPECT_EQ(log.Count("halden.service_watcher", "on purpose"), 1);
  const ServiceId unseen = Publish(kDc, "unseen");
  ASSERT_TRUE(events->PopFor(kLimit)) << "it cost more than one event";

  m_chroot += "/other";
  GlobalServiceWatcher other(kService, LibraryManaged{WriteConfig({kDc})});
  other.RegisterShared(events);
  other.StartManagedConnections();
  ASSERT_TRUE(other.AwaitSynchronized(kLimit) && other.Close(kLimit));
  EXPECT_EQ(events->Size(), 0U) << "one of the same name speaks only for itself";
  const auto kept = watcher.Watchers();  // a program may hold on to them
  EXPECT_TRUE(watcher.DisconnectDC(kDc));
  Client(kDc).Unpublish(kService, unseen);
  EXPECT_TRUE(watcher.ConnectDC(kDc));
  EXPECT_EQ(removed(), unseen);
}

}  // namespace
}  // namespace zr::halden::test
