// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <thread>

#include "halden/service_watcher.h"
#include "halden/testing/poll.h"
#include "halden/testing/zookeeper_client.h"
#include "halden/testing/zookeeper_ensemble.h"
#include "loopback.h"

namespace zr::halden::testing {
namespace {

using namespace std::chrono_literals;

template <typename Error>
std::string WhatStartThrows(const ZooKeeperServerOptions& options) {
  try {
    ZooKeeperServer(options).Start();
  } catch (const Error& error) {
    return error.what();
  }
  return "nothing";
}

TEST(Server, WhatKeepsItFromStartingIsNamed) {
  ZooKeeperServerOptions options;
  options.java = "no-such-java";
  EXPECT_NE(WhatStartThrows<MissingSoftware>(options).find("install default-jre-headless"),
            std::string::npos);
  options = {};
  options.classPath = "/no/such.jar";
  EXPECT_NE(WhatStartThrows<MissingSoftware>(options).find("install libzookeeper-java"), std::string::npos);
  options = {};
  options.properties = {"zookeeper.snapshot.trust.empty=", "java.security.manager=no.such.Class"};
  EXPECT_NE(WhatStartThrows<TestingError>(options).find("no.such.Class"), std::string::npos);
}

TEST(ServerDeathTest, OutlivesTheThreadThatStartsItAndNotTheProgram) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  std::optional<TemporaryFolder> folder;
  const char* given = std::getenv("HALDEN_KIT_TEST");  // by the program to the one that dies
  if (given == nullptr) setenv("HALDEN_KIT_TEST", folder.emplace().Path().c_str(), 1);
  const std::string path = given != nullptr ? given : folder->Path();
  EXPECT_EXIT(
      {
        setenv("TMPDIR", path.c_str(), 1);
        ZooKeeperServer server;
        std::thread([&] { server.Start(); }).join();
        std::ofstream(path + "/server") << server.Port() << " " << server.Mode();
        raise(SIGKILL);
      },
      ::testing::KilledBySignal(SIGKILL), "");
  std::uint16_t port = 0;
  std::string mode;
  std::ifstream(path + "/server") >> port >> mode;
  EXPECT_EQ(mode, "standalone");
  EXPECT_TRUE(Poll(kLimit, [&] {
    const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = Loopback(port);
    const int refused = connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    close(probe);
    return refused != 0;
  }));
}

TEST(Client, WhatAFrozenServerHoldsIsNotWrittenLater) {
  ZooKeeperServerOptions options;
  options.maxSessionTimeout = 30s;  // an expiry would make the server forget what it holds
  ZooKeeperEnsemble ensemble(3, options);
  ensemble.Start();
  auto& follower = ensemble.Server((ensemble.Leader() + 1) % 3);
  auto& other = ensemble.Server((ensemble.Leader() + 2) % 3);
  ZooKeeperClient writer(follower.ConnectString() + "," + other.ConnectString());
  zr::messaging::halden::ServiceInstanceData data;
  const ServiceId id = MakeServiceId();
  writer.Publish("orders", id, data);
  follower.Freeze();
  for (const char* host : {"held", "right"}) {
    data.set_host(host);
    writer.Publish("orders", id, data);  // the first has to go to the other server
  }
  follower.Thaw();
  follower.Start();  // waits until it serves, hence until it has passed on what it held
  ZooKeeperClient late(follower.ConnectString());
  const ServiceId last = MakeServiceId();
  late.Publish("orders", last, data);

  const auto conn =
      std::make_shared<Connection>(std::vector<zr::String>{other.ConnectString()}, true, "", 30s, "eu-west");
  const auto watcher = std::make_shared<ServiceWatcher>(conn, "orders", nullptr);
  watcher->Start();
  conn->Start(nullptr);
  EXPECT_TRUE(Poll(kLimit, [&] { return watcher->GetInstanceData(last, data); }));
  ASSERT_TRUE(Poll(kLimit, [&] { return watcher->GetInstanceData(id, data); }));
  EXPECT_EQ(data.host(), "right");
  late.Unpublish("orders", id);
  EXPECT_TRUE(Poll(kLimit, [&] { return !watcher->GetInstanceData(id, data); }));
  conn->Stop();
  EXPECT_TRUE(conn->AwaitClosed(kLimit));
}

}  // namespace
}  // namespace zr::halden::testing
