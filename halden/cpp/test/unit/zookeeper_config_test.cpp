// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "halden/zookeeper_config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "halden/utils.h"
#include "model/percent.h"
#include "support/capturing_log.h"

namespace zr::halden {

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::StartsWith;

class ZooKeeperConfigTest : public ::testing::Test {
 protected:
  ZooKeeperConfigTest()
      : m_path(::testing::TempDir() + "halden-config-" + std::to_string(getpid()) + ".toml") {}
  ~ZooKeeperConfigTest() override { std::filesystem::remove(m_path); }

  void Write(std::string_view text) const { std::ofstream(m_path, std::ios::binary) << text; }

  ZooKeeperConfig Read(std::string_view text) const {
    Write(text);
    return ReadZooKeeperConfig(m_path);
  }

  /// "line:column: message" of each.
  std::vector<std::string> Texts(const std::vector<ConfigFault>& faults) const {
    std::vector<std::string> texts;
    for (const auto& fault : faults) {
      EXPECT_THAT(fault.Text(), StartsWith(m_path + ":"));
      texts.push_back(fault.Text().substr(m_path.size() + 1));
    }
    return texts;
  }

  const std::string m_path;
};

TEST_F(ZooKeeperConfigTest, EveryWayToWriteAGoodFileIsRead) {
  const DataCenterEnsembleMapT expected{{"eu-west", "zk1:2181,zk2:2181/a"}, {"us.east", "[::1]:1"}};
  for (const char* text :
       {"# . . . . . . . . . . . . . . . . . .\n"
        "[data_centers]\neu-west = \"zk1:2181,zk2:2181/a\" # one\n'us.east' = '[::1]:1'",
        "\xEF\xBB\xBF[data_centers]\r\neu-west = \"zk1:2181,zk2:2181/a\"\r\n\"us.east\" = \"[::1]:1\"\r\n",
        "data_centers = { eu-west = \"zk1:2181,zk2:2181/a\", \"us.east\" = \"\\u005B::1]:1\" }",
        "data_centers.eu-west = \"\"\"zk1:2181,\\\n  zk2:2181/a\"\"\"\n"
        "data_centers.\"us.east\" = '''[::1]:1'''"}) {
    const auto config = Read(text);
    EXPECT_THAT(Texts(config.faults), IsEmpty()) << text;
    EXPECT_THAT(Texts(config.warnings), IsEmpty()) << text;
    EXPECT_EQ(config.ensembles, expected) << text;
  }
  EXPECT_EQ(Read("local = 'a'\n[data_centers]\na = 'h:1'").local, "a");
  EXPECT_THAT(Texts(Read("local = 'b'\n[data_centers]\na = 'h:1'").faults),
              ElementsAre(StartsWith("1:9: local is \"b\"")));
  EXPECT_EQ(Read("snapshot_folder = '/a b'\n[data_centers]\na = 'h:1'").snapshotFolder, "/a b");
  for (const char* folder : {"''", "'a'", "3", "\"/a\\u0000\""}) {
    EXPECT_THAT(
        Texts(Read(std::string("snapshot_folder = ") + folder + "\n[data_centers]\na = 'h:1'").faults),
        ElementsAre(StartsWith("1:19: snapshot_folder is ")));
  }
  const auto twice = Read("[data_centers]\nz = 'h:1'\na = 'h:1'\nb = 'h:1/c'");
  EXPECT_THAT(Texts(twice.faults), IsEmpty());
  EXPECT_THAT(
      Texts(twice.warnings),
      ElementsAre(StartsWith("3:1: data centre \"a\" has the ensemble of \"z\" in line 2, column 1")));
}

TEST_F(ZooKeeperConfigTest, AFaultyEntryCostsNoOtherAndIsShownWhereItIs) {
  const auto config = Read(
      "[data_centers]\n"
      "z-good = \"zk1:2181\"\n"
      "number = 2181\n"
      "\"\" = \"zk1:2181\"\n"
      "\"a\\nb\" = \"zk1:2181\"\n"
      "\"\\u0085\" = \"zk1:2181\"\n"
      "eu.west = \"zk1:2181\"\n"
      "  \"\xC3\xA9\" = \"zk1:2181, zk2:2181\"\n"
      "chroot = 'h:1/\xC3\xA9\xC3\xA9/../x'\n"
      "escaped = \"zk1:2181\\u002C zk2:2181\"\n"
      "several = \"\"\"\nzk1\"\"\"\n"
      "list = [\"zk1:2181\"]\n"
      "a-good = \"zk2:2181\"\n");
  EXPECT_THAT(Texts(config.faults),
              ElementsAre("3:10: data centre \"number\" is of type integer: expected a string, "
                          "\"host:port[,host:port...][/chroot]\", or a table",
                          "4:1: data centre without a name: expected one",
                          "5:1: control character in the name \"a\\x0ab\": expected printable text",
                          StartsWith("6:1: control"),
                          AllOf(StartsWith("7:4: unknown key \"west\" of data centre \"eu\""),
                                HasSubstr("a name with a dot in quotes")),
                          "8:19: connect string of data centre \"\xC3\xA9\": blank or control character: "
                          "expected none anywhere",
                          StartsWith("9:18: connect string of data centre \"chroot\": relative chroot"),
                          StartsWith("10:11: connect string of data centre \"escaped\": blank"),
                          StartsWith("11:11: connect string of data centre \"several\": port missing"),
                          AllOf(StartsWith("13:8: "), HasSubstr("array"))));
  EXPECT_EQ(config.ensembles, (DataCenterEnsembleMapT{{"a-good", "zk2:2181"}, {"z-good", "zk1:2181"}}));
}

TEST_F(ZooKeeperConfigTest, ATableNamesItsCredentialAndNeverHoldsIt) {
  const auto folder = std::filesystem::path(m_path).parent_path();
  const auto auth = std::filesystem::path(m_path + ".auth");
  const auto write = [&](const std::string& text, std::filesystem::perms mode) {
    std::ofstream(auth, std::ios::binary) << text;
    std::filesystem::permissions(auth, mode);
  };
  using std::filesystem::perms;
  const std::string file = "auth_file = '" + auth.filename().string() + "'\n";
  const std::string head = "[data_centers.eu]\nhosts = 'h:1/p'\n";
  write("digest:user:secret-word\n", perms::owner_read);
  auto config = Read(head + file + "acl = 'creator'");
  EXPECT_THAT(Texts(config.faults), IsEmpty());
  EXPECT_THAT(Texts(config.authFaults), IsEmpty());
  const auto encoded = details::EncodePercent(auth.string());
  EXPECT_EQ(config.ensembles.at("eu"), "h:1/p?auth_file=" + encoded + "&acl=creator");

  const auto owner = perms::owner_read | perms::owner_write;
  const std::tuple<std::string, perms, std::string> faulty[] = {
      {"digest:user:secret-word", owner | perms::others_read, ": may be read by everybody"},
      {"digest:user:secret-word", owner | perms::others_write, ": may be written by everybody"},
      {"\n", owner, ": is empty"},
      {"secret-word", owner, ":1:1: no scheme"},
      {":secret-word", owner, ":1:1: no scheme"},
      {"sasl:", owner, ":1:6: no credential"},
      {"digest:secret-word", owner, ":1:8: not a digest"},
      {"digest:user:secret-word\r\n", owner, ":1:24: carriage return"},
      {"digest:user:secret-word\nmore", owner, ":2:1: more than one line"},
      {std::string(5000, 'x'), owner, ": too large"},
  };
  for (const auto& [text, mode, why] : faulty) {
    write(text, mode);
    config = Read(head + file);
    EXPECT_EQ(config.ensembles.size(), 1U) << "it may be mended before it is needed";
    EXPECT_THAT(
        Texts(config.authFaults),
        ElementsAre(AllOf(StartsWith("3:13: credential of data centre \"eu\": " + auth.string() + why),
                          Not(HasSubstr("secret-word")))));
  }
  std::filesystem::remove(auth);
  EXPECT_THAT(Texts(Read(head + file).authFaults), ElementsAre(HasSubstr("No such file")));
  EXPECT_THAT(Texts(Read("[data_centers]\na = 'h:1?auth_file=" + folder.string() + "'").authFaults),
              ElementsAre(AllOf(StartsWith("2:5: "), HasSubstr("is not a file"))));

  for (const auto& [text, fault] : std::vector<std::pair<std::string, std::string>>{
           {"auth_file = 'digest:user:secret-word'",
            "3:13: auth_file of data centre \"eu\": expected the name"},
           {"auth = 'digest:user:secret-word'", "3:1: unknown key \"auth\" of data centre \"eu\""},
           {"auth_file = 3", "3:13: \"auth_file\" of data centre \"eu\" is of type integer"},
           {"acl = 'creator'", "3:7: acl of data centre \"eu\" without auth_file"},
           {"[data_centers]\na = 'h:1?acl=auth::r'", "4:5: acl of data centre \"a\" without auth_file"},
           {"acl = 'auth::rw,digest:u:secret-word:r'", "3:24: acl of data centre \"eu\": not a digest"},
           {"[data_centers.us]\nacl = 'world:anyone:r'", "3:1: data centre \"us\" has no hosts"},
           {"[data_centers.us]\nhosts = 'h:1?acl=auth::r'\nacl = 'auth::r'",
            "5:7: acl of data centre \"us\" is given"},
       }) {
    config = Read(head + text);
    EXPECT_THAT(Texts(config.faults), ElementsAre(AllOf(StartsWith(fault), Not(HasSubstr("secret-word")))));
    EXPECT_THAT(config.ensembles, ::testing::SizeIs(text.starts_with('[') ? 1 : 0));
  }
}

TEST_F(ZooKeeperConfigTest, AFileThatIsWrongAsAWholeGivesOneFaultAndNoEntry) {
  EXPECT_THAT(Texts(ReadZooKeeperConfig(m_path).faults),
              ElementsAre(" cannot be opened: No such file or directory: expected a file that can be read"));
  std::string deep = "\"=\"";  // as nested tables it would overflow the stack
  for (int i = 0; i < 200'000; ++i) deep += ". \"=\"";
  const std::pair<std::string, const char*> cases[] = {
      {"", " no table [data_centers]"},
      {"[data_centers]\n", "1:1: [data_centers] is empty"},
      {"data_centers = 3", "1:16: data_centers is of type integer"},
      {"[[data_centers]]\na = \"h:1\"", "data_centers is of type array"},
      {"[data_centers]\na = h:1", "2:5: not valid TOML, and not read from this line on: "},
      {"[data_centers]\na = \"\xFF\"", "not valid TOML, and not read from this line on: "},
      {"[data_centers]\na = " + std::string(100'000, '['),
       "not valid TOML, and not read from this line on: "},
      {deep + " = 1", "1:79: key of more than 16 parts"},
      {"x = '''\n''''' # ' \n[" + deep + "]", "3:80: key of more than 16 parts"},
      {"[data_centers]\na = {" + deep + " = 1}", "2:84: key of more than 16 parts"},
      {std::string(1 << 20, '#') + "#", " too large: expected at most 1 MiB"},
  };
  for (const auto& [text, fault] : cases) {
    const auto config = Read(text);
    EXPECT_THAT(Texts(config.faults), ElementsAre(HasSubstr(fault)));
    EXPECT_THAT(config.ensembles, IsEmpty()) << fault;
  }
  std::filesystem::remove(m_path);
  std::filesystem::create_directory(m_path);
  EXPECT_THAT(Texts(ReadZooKeeperConfig(m_path).faults), ElementsAre(" is a directory: expected a file"));
}

TEST_F(ZooKeeperConfigTest, WhatStandsBeforeTheLineOfASyntaxErrorIsReadAllTheSame) {
  const DataCenterEnsembleMapT good{{"good", "h:1"}};
  const std::string before = "zeta.y = 1\n[data_centers]\ngood = 'h:1'\n";
  const std::string again =
      " is given again, and the file not read from this line on: expected once, it is in ";
  for (const auto& [text, fault] : std::vector<std::pair<std::string, std::string>>{
           {"good 'h'", "4:6: not valid TOML, and not read from this line on: "},
           {"a = 'h:2'\n 'a' = 'h:2'\nb = 'h'", "5:2: \"a\"" + again + "line 4, column 1"},
           {"a.b = 'h:2'\na.b.c = 3", "5:1: \"b\"" + again + "line 4, column 3"},
           {"[data_centers]\nb = 'h:3'", "4:2: \"data_centers\"" + again + "line 2, column 2"},
           {"[zeta.x]\ngood = 1\ngood = 2", "6:1: \"good\"" + again + "line 5, column 1"},
           {"[data_centers.b]\nhosts = 'h:1'\nauth_file = b.auth", "6:13: not valid TOML"},
           {"b.hosts = 'h:1'\nc.hosts = 'h:1'\nb.auth_file = b.auth", "6:15: not valid TOML"},
           {"[data_centers.b]\nhosts = 'h:1'\nhosts = 'h:2'", "6:1: \"hosts\"" + again + "line 5, column 1"},
           {"[other]\n[zeta]", "5:2: \"zeta\"" + again + "line 1, column 1"},
       }) {
    const auto config = Read(before + text);
    ASSERT_FALSE(config.faults.empty()) << text;
    EXPECT_THAT(Texts(config.faults).back(), StartsWith(fault));
    EXPECT_EQ(config.ensembles, good) << text;
  }
}

TEST_F(ZooKeeperConfigTest, EveryFaultAndDoubtIsLoggedAndTheRestIsKept) {
  const DataCenterEnsembleMapT good{{"a", "h:1"}};
  const test::CapturingLog log;
  Write("[data_centers]\na = \"h:1\"\n");
  EXPECT_EQ(ParseZooKeeperConfig(m_path), std::tuple(true, good));
  EXPECT_EQ(log.Count("", ""), 0);
  Write("centers = 1\n[datacentres]\n[data_centers]\na = \"h:1\"\nb = \"h\"\n");
  EXPECT_EQ(ParseZooKeeperConfig(m_path), std::tuple(false, good));
  EXPECT_EQ(log.Count("halden.config", m_path + ":5:7: connect string of data centre \"b\""), 1);
  EXPECT_EQ(log.Count("halden.config", m_path + ":1:1: unknown key \"centers\" is ignored"), 1);
  EXPECT_EQ(log.Count("halden.config", "did you mean"), 1) << "what is far from it is not meant";
  EXPECT_EQ(log.Count("halden.config", m_path + ":2:2: unknown key \"datacentres\" is ignored: did you mean"),
            1);
  zr::logging::SetMinimumLoggingLevel(zr::logging::ZRLOG_ERROR);
  ParseZooKeeperConfig(m_path);
  EXPECT_EQ(log.Count("", ""), 3) << "the good entries serve: none of it is an error";
}

}  // namespace

}  // namespace zr::halden
