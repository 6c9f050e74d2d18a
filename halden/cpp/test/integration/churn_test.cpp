// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <memory>
#include <random>
#include <vector>

#include "halden/service_publisher.h"
#include "halden/service_watcher.h"
#include "support/ensemble_test.h"
#include "support/truth_checker.h"

namespace zr::halden::test {
namespace {

constexpr const char* kDc = "eu-west";

/// Random writes and faults, the same ones for the same seed.
class ChurnTest : public EnsembleTest, public ::testing::WithParamInterface<unsigned> {
 protected:
  int Roll(int sides) { return std::uniform_int_distribution(0, sides - 1)(m_random); }

  void Write() {
    const ServiceId& id = m_ids[static_cast<std::size_t>(Roll(static_cast<int>(m_ids.size())))];
    switch (Roll(8)) {
      case 0:
      case 1:
        m_ledger->Delete({kDc, id});
        return Client(kDc).Unpublish(kService, id);
      case 2:
        return Client(kDc).PublishRaw(kService, id, "\xff\xff garbage");
      default:
        return Client(kDc).Publish(kService, id, Data(id));
    }
  }

  ServiceInstanceData Data(const ServiceId& id) {
    return m_ledger->Write({kDc, id}, "h" + std::to_string(++m_writes));
  }

  void Fault() {
    m_ledger->Doubt({kDc, m_publisher->Id()});
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
        m_ledger->DeleteAll(kDc);
        return Client(kDc).Delete("/halden/services/orders");
      default:
        m_publisher->Remove();
        return m_publisher->Publish(Data(m_publisher->Id()));
    }
  }

  std::mt19937 m_random{GetParam()};
  int m_writes = 0;
  std::vector<ServiceId> m_ids = std::vector<ServiceId>(20);
  const std::shared_ptr<Connection> m_conn = MakeConnection(kDc);
  const std::shared_ptr<Ledger> m_ledger = std::make_shared<Ledger>();
  const std::shared_ptr<TruthChecker> m_checker = std::make_shared<TruthChecker>(m_ledger);
  std::unique_ptr<ServicePublisher> m_publisher;
};

TEST_P(ChurnTest, TheViewBecomesTheTruthAfterRandomWritesAndFaults) {
  for (auto& id : m_ids) id = MakeServiceId();
  m_publisher = std::make_unique<ServicePublisher>(m_conn, kService, MakeServiceId());
  m_publisher->Publish(Data(m_publisher->Id()));
  const auto watcher = std::make_shared<ServiceWatcher>(m_conn, kService, ZkErrorHandler());
  watcher->RegisterWeak(m_checker);
  watcher->Start();
  m_conn->Start(nullptr);
  for (int round = 0; round < 12; ++round) {
    for (int i = 0; i < 40; ++i) Write();
    Fault();
  }
  m_publisher->Publish(Data(m_publisher->Id()));
  ASSERT_TRUE(m_publisher->AwaitPublished(kLimit));
  EXPECT_TRUE(m_checker->AwaitTruth(*watcher, *MakeClient(kDc)));
}

INSTANTIATE_TEST_SUITE_P(Seeds, ChurnTest, ::testing::Values(1U, 2U, 3U));

}  // namespace
}  // namespace zr::halden::test
