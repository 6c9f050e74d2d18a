// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <map>
#include <memory>
#include <random>
#include <vector>

#include "halden/service_publisher.h"
#include "halden/service_watcher.h"
#include "support/ensemble_test.h"
#include "support/recording_observer.h"

namespace zr::halden::test {
namespace {

using View = std::map<ServiceId, zr::String>;  // id to host

constexpr const char* kDc = "eu-west";

View ViewOf(const RecordingObserver::EventList& events) {
  View view;
  for (const auto& event : events) {
    if (event.kind == EventKind::Removed) {
      view.erase(event.id);
    } else {
      view[event.id] = event.data.host();
    }
  }
  return view;
}

View ViewOf(const ServiceWatcher& watcher) {
  View view;
  for (const auto& id : watcher.ListInstances()) {
    ServiceInstanceData data;
    if (watcher.GetInstanceData(id, data)) view[id] = data.host();
  }
  return view;
}

/// Random writes and faults, the same ones for the same seed; what is awaited is that the observer's and the
/// watcher's view become what the server holds. That no event is illegal is the observer's own check.
class ChurnTest : public EnsembleTest, public ::testing::WithParamInterface<unsigned> {
 protected:
  int Roll(int sides) { return std::uniform_int_distribution(0, sides - 1)(m_random); }

  void Write() {
    const ServiceId& id = m_ids[static_cast<std::size_t>(Roll(static_cast<int>(m_ids.size())))];
    switch (Roll(8)) {
      case 0:
      case 1:
        return Client(kDc).Unpublish(kService, id);
      case 2:
        return Client(kDc).PublishRaw(kService, id, "\xff\xff garbage");
      default:
        return Client(kDc).Publish(kService, id, MakeInstance("h" + std::to_string(++m_writes)));
    }
  }

  void Fault() {
    switch (Roll(5)) {
      case 0:
        return m_conn->ForceExpire();
      case 1:
        m_conn->Stop();
        return m_conn->Start(nullptr);
      case 2:
        Server(kDc).Kill();
        return Server(kDc).Start();
      case 3:
        return Client(kDc).Delete("/halden/services/orders");
      default:
        m_publisher->Remove();
        return m_publisher->Publish(MakeInstance("p" + std::to_string(++m_writes)));
    }
  }

  /// What the server holds, as far as it can be decoded.
  View Truth() {
    View view;
    for (const auto& [id, bytes] : Client(kDc).ReadInstances(kService)) {
      zr::messaging::halden::ZNodeData node;
      ServiceInstanceData data;
      if (node.ParseFromString(bytes) && data.ParseFromString(node.payload())) view[id] = data.host();
    }
    return view;
  }

  std::mt19937 m_random{GetParam()};
  int m_writes = 0;
  std::vector<ServiceId> m_ids = std::vector<ServiceId>(20);
  const std::shared_ptr<Connection> m_conn = MakeConnection(kDc);
  const std::shared_ptr<RecordingObserver> m_observer = std::make_shared<RecordingObserver>();
  std::unique_ptr<ServicePublisher> m_publisher;
};

TEST_P(ChurnTest, TheViewBecomesTheTruthAfterRandomWritesAndFaults) {
  for (auto& id : m_ids) id = MakeServiceId();
  m_publisher = std::make_unique<ServicePublisher>(m_conn, kService, MakeServiceId());
  m_publisher->Publish(MakeInstance("p0"));
  const auto watcher = std::make_shared<ServiceWatcher>(m_conn, kService, ZkErrorHandler());
  watcher->RegisterWeak(m_observer);
  watcher->Start();
  m_conn->Start(nullptr);
  for (int round = 0; round < 12; ++round) {
    for (int i = 0; i < 40; ++i) Write();
    Fault();
  }
  for (const auto& id : m_ids) Client(kDc).Publish(kService, id, MakeInstance("last"));  // no garbage is left
  ASSERT_TRUE(m_publisher->AwaitPublished(kLimit));
  const View truth = Truth();
  ASSERT_EQ(truth.size(), m_ids.size() + 1);
  EXPECT_TRUE(m_observer->Await("the truth", [&](const auto& events) { return ViewOf(events) == truth; }));
  EXPECT_EQ(ViewOf(*watcher), truth);
}

INSTANTIATE_TEST_SUITE_P(Seeds, ChurnTest, ::testing::Values(1U, 2U, 3U));

}  // namespace
}  // namespace zr::halden::test
