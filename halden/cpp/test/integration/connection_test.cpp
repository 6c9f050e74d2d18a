// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "halden/connection_v2.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "halden/service_publisher.h"
#include "halden/service_watcher.h"
#include "halden/testing/temporary_folder.h"
#include "support/capturing_log.h"
#include "support/ensemble_test.h"
#include "support/recording_observer.h"

namespace zr::halden::test {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

class ConnectionTest : public EnsembleTest {
 protected:
  std::shared_ptr<ServiceWatcher> Watch(const std::shared_ptr<Connection>& conn) const {
    auto watcher = std::make_shared<ServiceWatcher>(conn, kService, m_errors.Handler());
    watcher->RegisterWeak(m_observer);
    watcher->Start();
    return watcher;
  }

  const std::shared_ptr<RecordingObserver> m_observer = std::make_shared<RecordingObserver>();
  const ErrorCodes m_errors{};
};

TEST_F(ConnectionTest, WhatCanNeverWorkIsThrownByStartAndNothingElseIs) {
  const auto make = [](const zr::String& hosts, const zr::String& auth) {
    return std::make_unique<Connection>(std::vector<zr::String>{hosts}, true, auth, kSessionTimeout, kDc);
  };
  for (const auto* hosts : {"", "host", "host:0", "host:99999", "h1:1/a,h2:2/a", "h:1,,h:2", "h:1/a/"}) {
    const auto conn = make(hosts, "");
    EXPECT_THROW(conn->Start(nullptr), ZooError) << hosts;
    EXPECT_EQ(conn->Status().state, ConnectionState::Stopped) << hosts;
  }
  EXPECT_THROW(make("127.0.0.1:2181", "no scheme")->Start(nullptr), ZooError);
  try {
    make("127.0.0.1:2181?auth=digest:user:secret-word", "")->Start(nullptr);
    ADD_FAILURE() << "an option that is none";
  } catch (const ZooError& e) {
    EXPECT_THAT(e.what(), AllOf(HasSubstr("\"127.0.0.1:2181\", character 16: not an option"),
                                Not(HasSubstr("secret"))));
  }
  const auto unresolvable = make("no-such-host.invalid:2181", "");
  EXPECT_NO_THROW(unresolvable->Start(nullptr));
  EXPECT_TRUE(Eventually([&] { return !unresolvable->Status().lastErrorText.empty(); }));
  EXPECT_EQ(unresolvable->Status().state, ConnectionState::Connecting);
}

TEST_F(ConnectionTest, AServerThatTakesTheConnectionAndNeverAnswersIsNotWaitedForLong) {
  const CapturingLog log;
  const auto conn = MakeConnection(kDc, true, {}, std::chrono::minutes(1));
  Server(kDc).Freeze();
  conn->Start(nullptr);
  // Left alone, the client library would wait for two thirds of the session timeout, longer than this does.
  ASSERT_TRUE(log.Await("halden.connection", "does not answer"));
  Server(kDc).Thaw();
  ASSERT_TRUE(AwaitState(*conn, ConnectionState::Connected));
}

TEST_F(ConnectionTest, ASessionThatIsGivenGoesOnOrIsReplacedWhenItIsDead) {
  auto earlier = MakeClient(kDc);
  earlier->Create("/lock", {}, NodeKind::Ephemeral);
  const clientid_t session = earlier->Session();
  Server(kDc).Kill();
  earlier.reset();  // cannot close its session, which lives on
  Server(kDc).Start();
  const auto heir = MakeConnection(kDc);
  heir->Start(&session);
  ASSERT_TRUE(AwaitState(*heir, ConnectionState::Connected));
  EXPECT_EQ(heir->Status().sessionId, session.client_id);
  heir->ForceExpire();
  ASSERT_TRUE(Eventually([&] { return !Client(kDc).Stat("/lock"); }));
  const auto late = MakeConnection(kDc);
  late->Start(&session);
  ASSERT_TRUE(AwaitState(*late, ConnectionState::Connected));
  EXPECT_NE(late->Status().sessionId, session.client_id);
}

TEST_F(ConnectionTest, AForcedExpiryEndsTheSessionOnTheServerWithMuchOutstandingToo) {
  const auto conn = MakeConnection(kDc);
  conn->ForceExpire();  // nothing to end
  EXPECT_EQ(conn->Status().expiries, 0U);
  conn->Start(nullptr);
  std::vector<std::unique_ptr<ServicePublisher>> publishers;
  for (int i = 0; i < 100; ++i) {
    publishers.push_back(std::make_unique<ServicePublisher>(conn, kService, MakeServiceId()));
    publishers.back()->Publish(MakeInstance("host"));
  }
  for (const auto& publisher : publishers) ASSERT_TRUE(publisher->AwaitPublished(kLimit));
  const auto session = conn->Status().sessionId;
  for (const auto& publisher : publishers) publisher->Publish(MakeInstance("changed"));
  conn->ForceExpire();
  conn->Stop();  // does not cut it short
  ASSERT_TRUE(conn->AwaitClosed(kUnlessWoken));
  for (const auto& publisher : publishers) {
    const auto stat = Client(kDc).Stat(ZooKeeperClient::InstancePath(kService, publisher->Id()));
    EXPECT_FALSE(stat && stat->ephemeralOwner == session);
  }
}

TEST_F(ConnectionTest, AuthenticationHoldsInEverySessionAndIsNeverLogged) {
  const CapturingLog log;
  const ServiceId id = MakeServiceId();
  const auto path = ZooKeeperClient::InstancePath(kService, id);
  Client(kDc).Authenticate("digest", "reader:secret-word");
  Client(kDc).Create(path, EncodeInstance(MakeInstance("first")), NodeKind::Persistent, Access::Creator);
  const auto stranger = MakeConnection(kDc);
  const auto conn = MakeConnection(kDc, true, "digest:reader:secret-word");
  const auto strangersWatcher = Watch(stranger);
  stranger->Start(nullptr);
  ASSERT_TRUE(m_errors.Await(ZNOAUTH));
  EXPECT_TRUE(m_observer->Events().empty());
  stranger->Stop();

  const auto watcher = Watch(conn);
  conn->Start(nullptr);
  ASSERT_TRUE(m_observer->AwaitHost(kDc, id, "first"));
  conn->ForceExpire();
  Client(kDc).Set(path, EncodeInstance(MakeInstance("second")));
  ASSERT_TRUE(m_observer->AwaitHost(kDc, id, "second"));
  ASSERT_TRUE(Eventually([&] { return watcher->Status().resyncs == 2; }));
  EXPECT_THAT(m_observer->History(kDc, id), ElementsAre(EventKind::Added, EventKind::Modified));
  EXPECT_EQ(log.Count("", "secret-word"), 0);
}

TEST_F(ConnectionTest, EachSessionTakesTheCredentialThatItsFileHoldsThen) {
  const CapturingLog log;
  const TemporaryFolder folder;
  const auto file = folder.Path() / "eu west.auth";
  const auto write = [&](const std::string& text) {
    std::ofstream(folder.Path() / "new") << text;
    std::filesystem::permissions(folder.Path() / "new", std::filesystem::perms::owner_read);
    std::filesystem::rename(folder.Path() / "new", file);
  };
  const ServiceId ids[] = {MakeServiceId(), MakeServiceId()};
  for (int i = 0; i < 2; ++i) {
    const auto owner = MakeClient(kDc);
    owner->Authenticate("digest", i == 0 ? "first:secret-word" : "second:secret-word");
    owner->Create(ZooKeeperClient::InstancePath(kService, ids[i]), EncodeInstance(MakeInstance("host")),
                  NodeKind::Persistent, Access::Creator);
  }
  std::string option = "?auth_file=" + file.string();
  option.replace(option.find(' '), 1, "%20");
  const std::vector<zr::String> hosts{ConnectString(kDc) + option};
  const auto conn = std::make_shared<Connection>(hosts, true, "", kSessionTimeout, kDc);
  const auto watcher = Watch(conn);
  conn->Start(nullptr);
  ASSERT_TRUE(AwaitState(*conn, ConnectionState::AuthFailed));
  EXPECT_TRUE(m_errors.Await(ZAUTHFAILED));
  EXPECT_EQ(conn->Status().lastErrorText,
            "no credential: " + file.string() + ": cannot be opened: No such file or directory");
  EXPECT_EQ(conn->Status().sessions, 0U) << "not without it";
  write("digest:secret-word");
  EXPECT_TRUE(log.Await("halden.connection", file.string() + ":1:8: not a digest"));
  write("digest:first:secret-word\n");
  ASSERT_TRUE(m_observer->Await(EventKind::Added, kDc, ids[0]));
  write("digest:second:secret-word\n");
  conn->ForceExpire();
  ASSERT_TRUE(m_observer->Await(EventKind::Added, kDc, ids[1]));

  // What is rotated while there is no server to begin a session with counts, too.
  Server(kDc).Stop();
  conn->Stop();
  conn->Start(nullptr);
  ASSERT_TRUE(log.Await("halden.connection", "no server of the ensemble is reached"));
  std::filesystem::remove(file);
  ASSERT_TRUE(AwaitState(*conn, ConnectionState::AuthFailed));
  Server(kDc).Start();
  const auto own =
      std::make_shared<Connection>(hosts, true, "digest:first:secret-word", kSessionTimeout, kDc);
  own->Start(nullptr);
  EXPECT_TRUE(AwaitState(*own, ConnectionState::Connected)) << "what the application gives needs no file";
  EXPECT_EQ(log.Count("", "secret-word"), 0);
  EXPECT_EQ(conn->Status().lastErrorText.find("secret-word"), zr::String::npos);
}

TEST_F(ConnectionTest, AnInvalidatedWatchRunsNoMoreAndItsEndIsTold) {
  const auto conn = MakeConnection(kDc);
  std::vector<zr::String> calls;
  const auto done = [&] { calls.push_back("done"); };
  Connection::WatchContext idle(*conn, [&](int, int, const zr::String& path) { calls.push_back(path); });
  idle.Invoke(ZOO_CHANGED_EVENT, ZOO_CONNECTED_STATE, "/before");
  EXPECT_TRUE(idle.Invalidate(done));
  idle.Invoke(ZOO_CHANGED_EVENT, ZOO_CONNECTED_STATE, "/after");
  EXPECT_THAT(calls, ElementsAre("/before"));

  calls.clear();
  Happening running;
  Happening goOn;
  Connection::WatchContext* inside = nullptr;
  Connection::WatchContext busy(*conn, [&](int, int, const zr::String& path) {
    running.Set();
    goOn.Await();
    EXPECT_FALSE(inside->Invalidate(done));
    calls.push_back(path);
  });
  inside = &busy;
  std::thread other([&] { busy.Invoke(ZOO_DELETED_EVENT, ZOO_CONNECTED_STATE, "/busy"); });
  EXPECT_TRUE(running.Await());
  EXPECT_FALSE(busy.Invalidate(done));
  goOn.Set();
  other.join();
  busy.Invoke(ZOO_DELETED_EVENT, ZOO_CONNECTED_STATE, "/after");
  EXPECT_THAT(calls, ElementsAre("/busy", "done", "done"));
}

}  // namespace
}  // namespace zr::halden::test
