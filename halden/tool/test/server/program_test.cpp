// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "agent/bench/process.h"
#include "halden/testing/poll.h"
#include "halden/testing/tcp_proxy.h"
#include "halden/testing/zookeeper_server.h"

namespace zr::halden::tool {
namespace {

using namespace ::testing;
using Lines = std::vector<std::string>;

const std::string kId = "00112233-4455-6677-8899-aabbccddeeff";

/// The built command: what it prints and complains of, in one.
class Program : public agent::Process {
 public:
  /// `words` are split as by a shell.
  explicit Program(const std::string& words) : Process(HALDEN_COMMAND " " + words + " 2>&1", STDOUT_FILENO) {}

  /// So many lines; fewer when the output ends.
  Lines Read(std::size_t count) {
    Lines lines;
    for (auto line = std::optional<std::string>(); lines.size() < count && (line = Process::Read('\n'));)
      lines.push_back(std::move(*line));
    return lines;
  }
};

/// A configuration in a folder of its own.
class Command : public Test {
 protected:
  void Configure(const std::string& text) { std::ofstream(m_config) << "[data_centers]\n" + text + "\n"; }

  Program Start(const std::string& words) {
    return Program(words + (words.starts_with("config") ? " " : " --config ") + m_config);
  }

  /// All that it prints, and its result behind it.
  std::string Outcome(const std::string& words) {
    Program program = Start(words);
    std::string text;
    for (const auto& line : program.Read(100)) text += line + '\n';
    return text + "= " + std::to_string(program.End());
  }

  const halden::testing::TemporaryFolder m_folder;
  const std::string m_config = m_folder.Path() / "halden.toml";
};

TEST_F(Command, SaysWhereTheConfigurationIsWrongAndFails) {
  Configure("eu = \"zk1\"\n[odd]");
  EXPECT_THAT(Outcome("config check"), ContainsRegex("2:10: error: .*port missing.*3:2: warning: .*\n= 1"));
  EXPECT_THAT(Outcome("config check --json --quiet"), ContainsRegex("\"error\",.*\"line\":2,[^\n]*\n= 1"));
  EXPECT_THAT(Outcome("services --quiet"), ContainsRegex("^halden: .*toml:2:10: [^\n]*\n= 1"));
  EXPECT_EQ(Program("config example >" + m_config).End(), 0);
  EXPECT_THAT(Outcome("config check"), HasSubstr("in order, 3 data centres\n= 0"));
  setenv("HALDEN_CONFIG", m_config.c_str(), 1);
  EXPECT_THAT(Program("config check").Read(1), ElementsAre(HasSubstr("in order, 3 data centres")));
}

TEST_F(Command, NamesAnEnsembleThatIsDownAndDoesNotTakeItForAnEmptyOne) {
  Configure("down = \"127.0.0.1:1\"");
  EXPECT_THAT(Outcome("services --timeout 0"),
              ContainsRegex("down: not read within 0 s: no server is reached: 127.0.0.1:1: Con.*= 1"));
  EXPECT_THAT(
      Outcome("list a --timeout 0"),
      ContainsRegex("completely within 0 s: no server .* refused\nhalden: try: halden doctor a .*= 1"));
  EXPECT_THAT(Outcome("doctor --timeout 0"), ContainsRegex("failure  servers .* Connection refused.*= 1"));
  const halden::testing::TcpProxy tunnel(1);  // closes what it takes: nobody is behind it
  Configure("down = \"" + tunnel.ConnectString() + '"');
  EXPECT_THAT(Outcome("doctor --timeout 0"), HasSubstr("see who closes"));
  Configure("down = \"127.0.0.1:1\"");
  EXPECT_THAT(Outcome("publish a --dc us --host h --port 1"),
              ContainsRegex("bad --dc 'us': .* has down\n= 2"));
  EXPECT_THAT(Outcome("publish a --dc down --host h --port 1 --timeout 0"),
              ContainsRegex("down: not published within 0 s: no server .* refused\n.*= 1"));
  EXPECT_THAT(Outcome("list orders --live"), ContainsRegex("needs a terminal.*= 2"));
  Program stopped = Start("services --timeout 60 --verbose");
  EXPECT_EQ(stopped.Read(1).size(), 1U);
  stopped.Signal(SIGTERM);
  EXPECT_EQ(stopped.End(), 0);
}

TEST_F(Command, AuthenticatesAndProtectsAndNeverTellsTheSecret) {
  halden::testing::ZooKeeperServer server;
  server.Start();
  const std::string file = m_folder.Path() / "eu.auth";
  const auto write = [&](const std::string& credential) {
    std::ofstream(file) << credential << '\n';
    std::filesystem::permissions(file,
                                 std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
  };
  std::string all;  // that was printed
  const auto outcome = [&](const std::string& words) { return all += Outcome(words); };
  std::ofstream(m_config) << "[data_centers.eu]\nhosts = '" << server.ConnectString("/p")
                          << "'\nauth_file = 'eu.auth'\nacl = 'creator'\n";
  write("digest:secret-word");
  const std::string why = "toml:3:13: .*credential of data centre \"eu\": [^ ]*eu.auth:1:8: not a digest";
  EXPECT_THAT(outcome("config check"), ContainsRegex(why + ".*= 1"));
  EXPECT_THAT(outcome("doctor"),
              ContainsRegex(why + ".*none: authentication failed .no credential: .*eu.auth:1:8"));
  EXPECT_THAT(outcome("status orders --json --verbose --timeout 1"),
              ContainsRegex("authentication failed.*= 1"));
  write("digest:user:secret-word");
  EXPECT_THAT(outcome("config check"), HasSubstr("= 0"));
  Program publisher = Start("publish orders --dc eu --host h --port 80 --log-level debug");
  Lines line{""};
  for (; !line.empty() && line[0].size() != kId.size(); line = publisher.Read(1)) all += line[0] + '\n';
  ASSERT_THAT(line, SizeIs(1)) << all;
  EXPECT_THAT(outcome("doctor orders"),
              ContainsRegex("who has no credential can add instances\n.* 0 warnings"));
  for (const char* words : {"list orders --log-level debug", "watch orders --timeout 0 --log-level debug",
                            "services --log-level debug", "status orders --json", "doctor orders --json"})
    outcome(words);
  outcome("get orders --log-level debug " + line[0]);
  Program closed = Start("publish closed --dc eu --host h --port 80 --acl auth::cdrwa");
  const auto taken = closed.Read(1);
  ASSERT_THAT(taken, SizeIs(1));
  std::ofstream(m_config) << "[data_centers]\neu = '" << server.ConnectString("/p") << "'\n";
  EXPECT_THAT(Outcome("doctor orders"),
              ContainsRegex("who has no credential can add instances\n.* 0 warnings"));
  EXPECT_THAT(Start("publish closed --dc eu --host h --port 1 --id " + taken[0]).Read(1),
              ElementsAre(HasSubstr("its ACL")));
  EXPECT_THAT(Outcome("list closed"), ContainsRegex("some of its nodes may not be read.*= 1"));
  EXPECT_THAT(Outcome("doctor closed"), HasSubstr("1 node below it may not be read"));
  EXPECT_THAT(Outcome("publish orders --dc eu --host h --port 1 --acl creator"),
              HasSubstr("no auth_file\n= 2"));
  EXPECT_THAT(all, Not(HasSubstr("secret-word")));
}

TEST_F(Command, PublishesWhatTheOthersTell) {
  halden::testing::ZooKeeperServer server;
  server.Start();
  Configure("eu = \"" + server.ConnectString("/platform") + '"');
  EXPECT_THAT(Outcome("config check"), HasSubstr("in order, 1 data centre\n= 0"));
  EXPECT_EQ(Outcome("complete data-centers"), "eu\n= 0");
  EXPECT_THAT(Outcome("doctor orders"), HasSubstr("the chroot /platform does not exist"));
  const std::string publish = "publish orders --dc eu --host h --port 80 --log-level off ";
  Program publisher = Start(publish + "--count 2");
  Lines ids = publisher.Read(2);
  EXPECT_THAT(Outcome("status orders --json"), ContainsRegex("\"live\",.*\"instances\":2,.*= 0"));
  EXPECT_THAT(Outcome("status orders"), ContainsRegex("\neu  connected +live +2 +0 +0 +0 +0 +1\n= 0"));
  EXPECT_THAT(Outcome("get orders " + ids.at(1).substr(0, 9)), HasSubstr("attributes  index=1\n"));
  std::sort(ids.begin(), ids.end());
  EXPECT_THAT(Outcome("list orders"), ContainsRegex("\neu  " + ids[0] + "  h  +80  +ok .*\neu  " + ids[1] +
                                                    ".*\n\neu  live, 2 instances\n= 0"));
  EXPECT_THAT(Outcome("get orders " + kId), HasSubstr("no data centre has instance"));
  EXPECT_THAT(Outcome("list ordrs"), HasSubstr("nobody publishes 'ordrs', did you mean orders?\n= 0"));
  EXPECT_THAT(Outcome("services --dc eu"), ContainsRegex("orders +eu +2\n= 0"));
  EXPECT_THAT(Outcome("status orders --dc us"), ContainsRegex("bad --dc 'us': .* has eu\n= 2"));
  EXPECT_THAT(Outcome("doctor orders"),
              ContainsRegex("2 instances, all readable.* 0 warnings, 0 failures\n= 0"));

  Program watcher = Start("watch orders --quiet");
  EXPECT_THAT(watcher.Read(2), Each(ContainsRegex("eu  added     .*  h:80  ok  index=[01]$")));
  publisher.Signal(SIGUSR1);
  EXPECT_THAT(watcher.Read(2), Each(ContainsRegex("eu  modified  .*  h:80  degraded  ")));
  publisher.Signal(SIGUSR2);
  EXPECT_THAT(watcher.Read(2), Each(ContainsRegex("eu  modified  .*  h:80  ok  ")));
  publisher.Signal(SIGTERM);
  EXPECT_THAT(watcher.Read(2), Each(ContainsRegex("eu  removed   [-0-9a-f]+$")));
  EXPECT_EQ(publisher.End(), 0);
  watcher.Signal(SIGINT);
  EXPECT_EQ(watcher.End(), 0);

  Program first = Start(publish + "--json --id " + kId);
  EXPECT_THAT(first.Read(1), ElementsAre(R"({"type":"published","data_center":"eu","id":")" + kId + "\"}"));
  Program rival = Start(publish + "--id " + kId);
  EXPECT_THAT(rival.Read(1), ElementsAre(HasSubstr(kId + ": published by another process")));
  EXPECT_THAT(first.Read(1), ElementsAre(HasSubstr(kId + ": another process ")));
}

TEST_F(Command, KnowsInAnOutageWhatOneThatWasKilledKnew) {
  halden::testing::ZooKeeperServer server;
  server.Start();
  const std::string folder = m_folder.Path() / "snapshots";
  std::ofstream(m_config) << "snapshot_folder = '" + folder + "'\n[data_centers]\neu = '" +
                                 server.ConnectString() + "'";
  Program publisher = Start("publish orders --dc eu --host h --port 80 --id " + kId);
  EXPECT_THAT(publisher.Read(1), ElementsAre(kId));
  Program watcher = Start("watch orders --quiet --snapshots " + folder);
  EXPECT_THAT(watcher.Read(1), ElementsAre(HasSubstr(kId)));
  EXPECT_TRUE(halden::testing::Poll(halden::testing::kLimit,
                                    [&] { return std::filesystem::exists(folder + "/orders@eu.snapshot"); }));
  watcher.Signal(SIGKILL);
  watcher.End();
  server.Kill();
  EXPECT_THAT(
      Outcome("list orders --timeout 0"),
      ContainsRegex("eu  " + kId + "  h .*\neu  [a-z, ]+, 1 instance as of .* ago.*not read comp.*= 1"));
  EXPECT_THAT(Outcome("status orders --timeout 0"), ContainsRegex("eu  [a-z]+ +restored +1 .*\n +as of "));
  EXPECT_THAT(Outcome("list orders --timeout 0 --json"),
              ContainsRegex("\"freshness\":\"restored\",\"stale_since\":null,\"restored_as_of\":\"2"));
}

}  // namespace
}  // namespace zr::halden::tool
