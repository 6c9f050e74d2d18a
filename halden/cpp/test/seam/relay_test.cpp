// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <stdexcept>

#include "seam/seam_test.h"

namespace zr::halden::test {
namespace {

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

  const std::shared_ptr<AddressObserver> m_first = std::make_shared<AddressObserver>();
  const std::shared_ptr<AddressObserver> m_second = std::make_shared<AddressObserver>();
};

TEST_F(InstancesOfAll, AreListedPerDataCenterNeitherSortedNorMerged) {
  MakeWithInstances();
  EXPECT_THAT(m_watcher->ListInstances(), AnyOf(ElementsAre(kSecond, kFirst, kThird, kFirst),
                                                ElementsAre(kThird, kFirst, kSecond, kFirst)));
  EXPECT_THAT(m_journal.Take(),
              ::testing::UnorderedElementsAre("* east: ListInstances", "* west: ListInstances"));
  LinesOfFailure("east: ListInstances", std::out_of_range("east"), [&] { m_watcher->ListInstances(); });
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
  LinesOfFailure("west: GetInstanceData", std::out_of_range("west"),
                 [&] { m_watcher->GetInstanceData(ServiceId{}, watcher, data); });
}

TEST_F(InstancesOfAll, EventsReachEveryObserverWithTheVeryArgumentsOfTheDataCenter) {
  MakeEastAndWest();
  m_watcher->RegisterShared(m_first);
  m_watcher->RegisterWeak(m_second);
  const ServiceInstanceData data;
  ServiceWatcher& east = WatcherOf("east");
  ServiceWatcher& west = WatcherOf("west");
  east.Raise(&ServiceWatcherObserver::OnInstanceRemoved, kFirst);
  east.Raise(&ServiceWatcherObserver::OnInstanceAdded, kFirst, data);
  west.Raise(&ServiceWatcherObserver::OnInstanceAdded, kFirst, data);
  west.Raise(&ServiceWatcherObserver::OnInstanceModified, kFirst, data);
  EXPECT_THAT(m_first->m_events,
              ElementsAre(Event("removed", &east, &kFirst, nullptr), Event("added", &east, &kFirst, &data),
                          Event("added", &west, &kFirst, &data), Event("modified", &west, &kFirst, &data)));
  EXPECT_EQ(m_second->m_events, m_first->m_events);
}

TEST_F(InstancesOfAll, AnObserverMayAskTheWatcherBackAndItsExceptionReachesTheDataCenter) {
  MakeWithInstances();
  m_watcher->RegisterShared(m_first);
  m_watcher->RegisterShared(m_second);
  m_first->m_then = [&] {
    EXPECT_EQ(m_watcher->ListInstances().size(), 4u);
    m_watcher->RemoveConnection(m_watcher->GetConnection("west"));
    throw std::out_of_range("observer");
  };
  EXPECT_THROW(WatcherOf("east").Raise(&ServiceWatcherObserver::OnInstanceRemoved, kFirst),
               std::out_of_range);
  EXPECT_FALSE(m_watcher->HasConnection("west"));
  EXPECT_THAT(m_second->m_events, IsEmpty());
}

}  // namespace
}  // namespace zr::halden::test
