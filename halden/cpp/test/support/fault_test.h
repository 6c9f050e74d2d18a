// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "support/ensemble_test.h"
#include "support/truth_checker.h"

namespace zr::halden::test {

/// One data centre whose instances the test writes and deletes, and a watcher that is checked all the time.
class FaultTest : public EnsembleTest {
 protected:
  static constexpr const char* kDc = "eu-west";
  /// Short, so that a client soon notices a connection that is dead.
  static constexpr std::chrono::milliseconds kShortTimeout{1000};

  /// Watches through a new connection to `hosts`, which it starts.
  void Watch(const zr::String& hosts, const zr::String& auth = {}) {
    m_conn = std::make_shared<Connection>(std::vector<zr::String>{hosts}, true, auth, kShortTimeout, kDc);
    m_watcher = std::make_shared<ServiceWatcher>(m_conn, kService, m_errors.Handler());
    m_watcher->RegisterWeak(m_checker);
    m_watcher->Start();
    m_conn->Start(nullptr);
  }

  void Write(ZooKeeperClient& client, const ServiceId& id) {
    client.Publish(kService, id, m_ledger->Write({kDc, id}, "h" + std::to_string(++m_writes)));
  }
  void Delete(ZooKeeperClient& client, const ServiceId& id) {
    m_ledger->Delete({kDc, id});
    client.Unpublish(kService, id);
  }
  std::vector<ServiceId> WriteSome(ZooKeeperClient& client, std::size_t count) {
    std::vector<ServiceId> ids(count);
    for (auto& id : ids) Write(client, id = MakeServiceId());
    return ids;
  }

  ::testing::AssertionResult AwaitTruth(ZooKeeperClient& fresh) const {
    return m_checker->AwaitTruth(*m_watcher, fresh);
  }
  ::testing::AssertionResult AwaitTruth() const { return AwaitTruth(*MakeClient(kDc)); }

  ::testing::AssertionResult AwaitLost() const {
    return Eventually([this] { return m_conn->Status().state != ConnectionState::Connected; });
  }

  const std::shared_ptr<Ledger> m_ledger = std::make_shared<Ledger>();
  const std::shared_ptr<TruthChecker> m_checker = std::make_shared<TruthChecker>(m_ledger);
  const ErrorCodes m_errors{};
  std::shared_ptr<Connection> m_conn;
  std::shared_ptr<ServiceWatcher> m_watcher;

 private:
  int m_writes = 0;
};

}  // namespace zr::halden::test
