// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <functional>
#include <ostream>
#include <thread>
#include <vector>

#include "support/fault_test.h"
#include "support/tcp_proxy.h"

namespace zr::halden::test {
namespace {

class NetworkFaultTest;

struct Fault {
  const char* name;
  std::function<void(NetworkFaultTest&)> strike;
};

/// The same scenes for every fault between a client and its server, the server's own death included.
class NetworkFaultTest : public FaultTest, public ::testing::WithParamInterface<Fault> {
 public:
  static std::vector<Fault> Faults() {
    using Test = NetworkFaultTest;
    return {
        {"ServerKilled", &Test::KillServer},
        {"ConnectionCut", &Test::CutAgainAndAgain},
        {"Refused", &Test::Refuse},
        {"Delayed", [](Test& test) { test.m_proxy.Delay(std::chrono::milliseconds(30)), test.LetPass(); }},
        {"Trickle", [](Test& test) { test.m_proxy.Throttle(3000), test.LetPass(); }},
        {"HalfOpen", &Test::HalfOpen},
        {"Expired", [](Test& test) { test.m_conn->ForceExpire(), test.m_conn->ForceExpire(); }},
        {"ExpiredTwice", &Test::ExpireTwice},
        {"Restarted", [](Test& test) { test.m_conn->Stop(), test.m_conn->Start(nullptr); }}};
  }

 protected:
  void Watch() { FaultTest::Watch(m_proxy.ConnectString(m_chroot)); }

  ::testing::AssertionResult AwaitEvents(std::uint64_t count) const {
    return Eventually([&] { return m_checker->Events() >= count; }, [&] { return m_checker->Events(); });
  }
  /// While a fault goes on: until it has let some events pass, if it does.
  void LetPass() const {
    const auto enough = m_checker->Events() + 30;
    Poll(2 * kShortTimeout, [&] { return m_checker->Events() >= enough; });
  }

  void KillServer() {
    Server(kDc).Kill();
    Server(kDc).Start();
  }
  void CutAgainAndAgain() {
    for (int i = 0; i < 5; ++i) {
      const auto before = m_conn->Status().reconnects;
      m_proxy.Cut();
      ASSERT_TRUE(Eventually([&] { return m_conn->Status().reconnects > before; }));
    }
  }
  void Refuse() {
    m_proxy.Refuse();
    ASSERT_TRUE(AwaitLost());
    m_proxy.Accept();
  }
  void HalfOpen() {
    m_proxy.HalfOpen();
    ASSERT_TRUE(AwaitLost());
  }
  void ExpireTwice() {
    for (int i = 0; i < 2; ++i) {
      const auto before = m_conn->Status().sessions;
      m_conn->ForceExpire();
      ASSERT_TRUE(Eventually([&] { return m_conn->Status().sessions > before; }));
    }
  }

  TcpProxy m_proxy{Server(kDc).Port()};
};

void PrintTo(const Fault& fault, std::ostream* out) {
  *out << fault.name;
}

TEST_P(NetworkFaultTest, DuringTheFirstLoadCostsNoInstance) {
  constexpr std::size_t count = 600;
  WriteSome(Client(kDc), count);
  m_proxy.Throttle(100'000);  // slow enough for the fault to come in the middle
  Watch();
  ASSERT_TRUE(AwaitEvents(20));
  GetParam().strike(*this);
  m_proxy.Heal();
  EXPECT_TRUE(AwaitTruth());
  EXPECT_EQ(m_checker->Events(), count);
}

TEST_P(NetworkFaultTest, AmidWritesLosesNoChange) {
  const auto ids = WriteSome(Client(kDc), 40);
  Watch();
  ASSERT_TRUE(AwaitEvents(ids.size()));
  std::thread writer([&] {
    for (std::size_t i = 0; i < 300; ++i) {
      const auto& id = ids[i * 7 % ids.size()];
      if (i % 3 == 0) Delete(Client(kDc), id);
      if (i % 4 != 0) Write(Client(kDc), id);
      if (i == 200) {
        m_ledger->DeleteAll(kDc);
        Client(kDc).Delete("/halden/services");
      }
    }
  });
  GetParam().strike(*this);
  writer.join();
  m_proxy.Heal();
  EXPECT_TRUE(AwaitTruth());
  Write(Client(kDc), ids[0]);
  EXPECT_TRUE(AwaitTruth());
}

INSTANTIATE_TEST_SUITE_P(All, NetworkFaultTest, ::testing::ValuesIn(NetworkFaultTest::Faults()),
                         [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace zr::halden::test
