// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "halden/service_publisher.h"

#include <gmock/gmock.h>
#include <pwd.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <random>
#include <stdexcept>
#include <vector>

#include "support/capturing_log.h"
#include "support/ensemble_test.h"
#include "support/recording_observer.h"

/// A directory far away that knows nobody: an operation that waits for nothing does not ask it.
extern "C" ZR_EXPORT int getpwuid_r(uid_t, passwd*, char*, std::size_t, passwd** found) {
  *found = nullptr;
  return 0;
}

namespace zr::halden::test {
namespace {

/// A publisher on a connection of its own, and a watcher on another one.
class ServicePublisherTest : public EnsembleTest {
 protected:
  ServicePublisherTest() {
    m_conn->Start(nullptr);
    m_watcherConn->Start(nullptr);
    m_watcher->RegisterWeak(m_observer);
    m_watcher->Start();
  }

  /// The session that owns the instance's node; 0 for none, -1 when there is no node.
  std::int64_t Owner(const ServiceId& id) {
    const auto stat = Client(kDc).Stat(ZooKeeperClient::InstancePath(kService, id));
    return stat ? stat->ephemeralOwner : -1;
  }

  const std::shared_ptr<Connection> m_conn = MakeConnection(kDc);
  const std::shared_ptr<Connection> m_watcherConn = MakeConnection(kDc);
  const std::shared_ptr<RecordingObserver> m_observer = std::make_shared<RecordingObserver>();
  const std::shared_ptr<ServiceWatcher> m_watcher =
      std::make_shared<ServiceWatcher>(m_watcherConn, kService, ZkErrorHandler());
  const ServiceId m_id = MakeServiceId();
  std::unique_ptr<ServicePublisher> m_publisher = std::make_unique<ServicePublisher>(m_conn, kService, m_id);
};

TEST_F(ServicePublisherTest, AnInstanceIsSeenFromPublicationToRemoval) {
  ServiceInstanceData data = MakeInstance("first");
  data.clear_service_name();
  m_publisher->Publish(data);
  ASSERT_TRUE(m_publisher->AwaitPublished(kUnlessWoken));
  EXPECT_EQ(Owner(m_id), m_conn->Status().sessionId);
  ASSERT_TRUE(m_observer->AwaitHost(kDc, m_id, "first"));
  EXPECT_EQ(m_observer->Events().at(0).data.service_name(), kService);
  m_publisher->Publish(MakeInstance("second"));
  ASSERT_TRUE(m_publisher->AwaitPublished(kLimit));
  ASSERT_TRUE(m_observer->AwaitHost(kDc, m_id, "second"));
  m_publisher->Remove();
  ASSERT_TRUE(m_publisher->AwaitAbsent(kUnlessWoken));
  EXPECT_EQ(Owner(m_id), -1);
  ASSERT_TRUE(m_observer->Await(EventKind::Removed, kDc, m_id));
  m_publisher->Publish(MakeInstance("third"));
  ASSERT_TRUE(m_publisher->AwaitPublished(kLimit));
  ASSERT_TRUE(m_observer->AwaitHost(kDc, m_id, "third"));
  EXPECT_EQ(m_publisher->Status().published, 2U);
  m_publisher.reset();
  ASSERT_TRUE(m_observer->Await(EventKind::Removed, kDc, m_id, 2))
      << "the destructor takes the instance back";
}

TEST_F(ServicePublisherTest, ANodeThatAnEarlierSessionLeftIsReplacedBeforeItGoes) {
  auto earlier = MakeClient(kDc);
  const std::string bytes = EncodeInstance(MakeInstance("host"));
  earlier->PublishRaw(kService, m_id, bytes, NodeKind::Ephemeral);
  const ServiceId other = MakeServiceId();
  earlier->PublishRaw(kService, other, bytes, NodeKind::Persistent);
  ServicePublisher otherPublisher(m_conn, kService, other);
  m_publisher->Publish(MakeInstance("host"));
  otherPublisher.Publish(MakeInstance("host"));
  ASSERT_TRUE(m_publisher->AwaitPublished(kLimit));
  ASSERT_TRUE(otherPublisher.AwaitPublished(kLimit));
  earlier.reset();  // ends its session
  EXPECT_EQ(Owner(m_id), m_conn->Status().sessionId);
  EXPECT_EQ(Owner(other), m_conn->Status().sessionId);
}

TEST_F(ServicePublisherTest, AForeignNodeCreatedAnewAfterTheLookIsLookedAtAgainBeforeItsDeletion) {
  const CapturingLog log;
  std::vector<std::unique_ptr<ZooKeeperClient>> others;
  const auto publish = [&] {
    Client(kDc).Unpublish(kService, m_id);
    others.emplace_back(MakeClient(kDc))->PublishRaw(kService, m_id, "other", NodeKind::Ephemeral);
  };
  publish();
  int looks = 0;
  zr::logging::SetHandler("race", [&](const zr::logging::LogRecord& record) {  // between look and deletion
    if (record.msg.find("replacing a node") != std::string::npos && ++looks == 1) publish();
  });
  m_publisher->Publish(MakeInstance("host"));
  EXPECT_TRUE(m_publisher->AwaitPublished(kLimit));
  zr::logging::RemoveHandler("race");
  EXPECT_EQ(looks, 2);
}

TEST_F(ServicePublisherTest, AParentThatMayNotBeCreatedIsTroubleOnlyWhereItIsAbsent) {
  const CapturingLog log;
  Client(kDc).Create("/halden/services/orders");
  Client(kDc).Authenticate("digest", "owner:secret");
  Client(kDc).SetAccess("/halden/services", Access::Creator);
  m_publisher->Publish(MakeInstance("host"));
  ASSERT_TRUE(m_publisher->AwaitPublished(kLimit));
  EXPECT_EQ(log.Count("halden.publisher", "write failed"), 0);
  ServicePublisher refused(m_conn, "payments", MakeServiceId());
  ServiceInstanceData payment = MakeInstance("host");
  payment.set_service_name("payments");
  refused.Publish(payment);
  EXPECT_TRUE(log.Await("halden.publisher", "write failed, error=not authenticated"));
  Client(kDc).SetAccess("/halden/services", Access::Everybody);
  EXPECT_TRUE(refused.AwaitPublished(kLimit));
}

TEST_F(ServicePublisherTest, WhatItsCreatorProtectsStrangersReadAndJoinAndDoNothingElse) {
  const CapturingLog log;
  const std::vector<zr::String> hosts{ConnectString(kDc) + "?acl=creator"};
  const auto make = [&](const zr::String& auth) {
    auto conn = std::make_shared<Connection>(hosts, true, auth, kSessionTimeout, kDc);
    conn->Start(nullptr);
    return conn;
  };
  ServicePublisher refused(make(""), kService, MakeServiceId());
  refused.Publish(MakeInstance("nobody"));
  EXPECT_TRUE(log.Await("halden.publisher", "invalid acl: the access list names who has authenticated"));
  EXPECT_EQ(refused.Status().lastError, ZINVALIDACL);
  refused.Remove();

  // Ids of one partition, so that each is below what another has created.
  ServiceId second = m_id;
  ServiceId third = m_id;
  ServiceId fourth = m_id;
  for (int i = 0; i < 2; ++i) second.data[i] ^= 1U, third.data[i] ^= 2U, fourth.data[i] ^= 4U;
  ServicePublisher owner(make("digest:owner:secret-word"), kService, m_id);
  owner.Publish(MakeInstance("first"));
  ASSERT_TRUE(owner.AwaitPublished(kLimit));
  owner.Publish(MakeInstance("again"));
  ASSERT_TRUE(owner.AwaitPublished(kLimit));
  const std::filesystem::path path = ZooKeeperClient::InstancePath(kService, m_id);
  ASSERT_TRUE(m_observer->AwaitHost(kDc, m_id, "again"));
  const auto code = [](const auto& deed) -> int {
    try {
      deed();
    } catch (const ZooError& e) {
      return e.Code();
    }
    return ZOK;
  };
  auto& stranger = Client(kDc);
  for (auto node = path; node != "/"; node = node.parent_path()) {
    EXPECT_TRUE(stranger.Get(node)) << node;
    EXPECT_EQ(code([&] { stranger.Set(node, "evil"); }), ZNOAUTH) << node;
    EXPECT_EQ(code([&] { stranger.SetAccess(node, Access::Everybody); }), ZNOAUTH) << node;
    if (node == path) continue;
    EXPECT_EQ(code([&] { stranger.Create(node / "more"); }), ZOK) << node;
    EXPECT_EQ(code([&] { stranger.Delete(node / "more"); }), ZNOAUTH) << node;
  }
  EXPECT_EQ(code([&] { stranger.Delete(path); }), ZNOAUTH);

  // What not everybody may read is told nobody by its partition either.
  ServicePublisher secret(make("digest:owner:secret-word"), kService, fourth, "auth::cdrwa");
  secret.Publish(MakeInstance("hidden"));
  ASSERT_TRUE(secret.AwaitPublished(kLimit));
  EXPECT_EQ(stranger.Get(path.parent_path()).value().find("hidden"), std::string::npos);

  // Whoever shares the credential shares the service; a stranger adds to it, and leaves with its session.
  ServicePublisher friendly(make("digest:owner:secret-word"), kService, second, "world:anyone:r,auth::cdrwa");
  const auto guest = MakeConnection(kDc);
  guest->Start(nullptr);
  ServicePublisher other(guest, kService, third);
  friendly.Publish(MakeInstance("friend"));
  other.Publish(MakeInstance("guest"));
  ASSERT_TRUE(friendly.AwaitPublished(kLimit));
  ASSERT_TRUE(other.AwaitPublished(kLimit));
  ASSERT_TRUE(m_observer->AwaitHost(kDc, third, "guest"));
  friendly.Remove();
  EXPECT_TRUE(friendly.AwaitAbsent(kLimit));
  other.Remove();
  EXPECT_TRUE(Eventually([&] { return other.Status().lastError == ZNOAUTH; }));
  guest->Stop();
  EXPECT_TRUE(m_observer->Await(EventKind::Removed, kDc, third));
  EXPECT_THROW(ServicePublisher(m_conn, kService, m_id, "digest:owner:secret-word:r"), std::invalid_argument);
  EXPECT_EQ(log.Count("", "secret-word"), 0);
}

TEST_F(ServicePublisherTest, OfTwoWithOneIdTheSecondIsToldAndTakesOverInTheEnd) {
  const CapturingLog log;
  m_publisher->Publish(MakeInstance("first"));
  ASSERT_TRUE(m_publisher->AwaitPublished(kLimit));
  const auto other = MakeConnection(kDc);
  other->Start(nullptr);
  ServicePublisher second(other, kService, m_id);
  ServicePublisher third(other, kService, m_id);  // shares the second one's session
  for (auto* publisher : {&second, &third}) {
    publisher->Publish(MakeInstance("rival"));
    ASSERT_TRUE(Eventually([&] { return publisher->Status().state == PublishState::Conflict; }));
    EXPECT_FALSE(publisher->AwaitPublished(kLimit));
    EXPECT_EQ(publisher->Status().lastError, ZNODEEXISTS);
  }
  const auto here = ::testing::MatchesRegex("\\w+@.+, pid " + std::to_string(getpid()));
  EXPECT_THAT(second.Status().rival, here);
  EXPECT_THAT(m_publisher->Status().replacedWriter, here);
  EXPECT_TRUE(log.Await("halden.publisher", ToString(m_id)));
  ASSERT_TRUE(m_publisher->AwaitPublished(kLimit));
  EXPECT_EQ(Owner(m_id), m_conn->Status().sessionId);
  m_publisher->Remove();
  ASSERT_TRUE(Eventually([&] { return Owner(m_id) == other->Status().sessionId; }));
  ASSERT_TRUE(m_observer->AwaitHost(kDc, m_id, "rival"));
  m_publisher->Publish(MakeInstance("back"));  // both have been first: one gives way all the same
  ASSERT_TRUE(Eventually([&] { return m_publisher->Status().state == PublishState::Conflict; }));
  m_publisher.reset();
  second.Remove();
  ASSERT_TRUE(Eventually([&] { return third.Status().state == PublishState::Published; }));
}

TEST_F(ServicePublisherTest, DataThatFitsInNoNodeIsRefusedAndLargeTextIsCompressed) {
  constexpr std::size_t size = 2'000'000;
  ServiceInstanceData data = MakeInstance("host");
  auto& value = *data.add_attributes()->mutable_value();
  value.assign(size, 'a');
  m_publisher->Publish(data);
  ASSERT_TRUE(m_observer->Await("the large instance", [](const auto& events) {
    return !events.empty() && events.back().data.attributes(0).value() == std::string(size, 'a');
  }));
  std::minstd_rand random(1);
  for (auto& letter : value) letter = static_cast<char>('0' + random() % 64);
  EXPECT_THAT([&] { m_publisher->Publish(data); },
              ::testing::Throws<ZooError>(::testing::Property(&ZooError::Code, ZBADARGUMENTS)));
  ServiceInstanceData portless = MakeInstance("host");
  portless.add_ports()->set_port(70'000);
  EXPECT_THAT([&] { m_publisher->Publish(portless); },
              ::testing::ThrowsMessage<ZooError>(::testing::HasSubstr("is 70000")));
  for (const char* const host : {"[::1]", "h:80", "h 1", "h\n"}) {
    EXPECT_THAT([&] { m_publisher->Publish(MakeInstance(host)); },
                ::testing::ThrowsMessage<ZooError>(::testing::HasSubstr("its host is")));
  }
  EXPECT_TRUE(m_publisher->AwaitPublished(kLimit)) << "what was published before stays";
}

}  // namespace
}  // namespace zr::halden::test
