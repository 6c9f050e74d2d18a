// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "cli/command_line.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "ensemble/configuration.h"
#include "halden/zookeeper_config.h"
#include "io/failure.h"

namespace zr::halden::tool {
namespace {

using Words = std::vector<const char*>;

const Words kPublish{"publish", "orders", "--config", "c",      "--dc",
                     "eu-west", "--host", "[::1]",    "--port", "80"};

Words operator+(Words words, const Words& more) {
  words.insert(words.end(), more.begin(), more.end());
  return words;
}

Invocation Parse(const Words& words) {
  const Words all = Words{"halden"} + words;
  return ParseCommandLine(static_cast<int>(all.size()), all.data());
}

/// That the command line is wrong usage, told in one line that has `part`.
void ExpectRefused(const Words& words, const std::string& part) {
  try {
    Parse(words);
    ADD_FAILURE() << "taken: " << words.back();
  } catch (const Failure& e) {
    const std::string line = e.what();
    EXPECT_EQ(e.Code(), kWrongUsage);
    EXPECT_EQ(line.find('\n'), std::string::npos) << line;
    EXPECT_NE(line.find(part), std::string::npos) << line;
  }
}

TEST(CommandLine, ReadsPortsAndAttributesAsTyped) {
  const auto options =
      std::get<PublishOptions>(Parse(kPublish + Words{"--port", "admin=010", "--attribute", "[a=b]",
                                                      "--attribute", "url=x=y", "--count", "2"}));
  const auto& instance = options.instance;
  EXPECT_EQ(instance.host(), "[::1]");
  ASSERT_EQ(instance.ports_size(), 2);
  EXPECT_EQ(instance.ports(0).name(), "");
  EXPECT_EQ(instance.ports(1).name(), "admin");
  EXPECT_EQ(instance.ports(1).port(), 10U);
  ASSERT_EQ(instance.attributes_size(), 2);
  EXPECT_EQ(instance.attributes(0).key(), "[a");
  EXPECT_EQ(instance.attributes(1).value(), "x=y");
  EXPECT_EQ(options.count, 2U);
}

TEST(CommandLine, SaysWhatIsWrongInOneLine) {
  ExpectRefused({}, "subcommand");
  ExpectRefused({"watch", "--config", "c"}, "SERVICE");
  ExpectRefused({"watch", "orders"}, "--config");
  ExpectRefused({"list", "orders", "--config", "c", "--jsno"}, "--jsno");
  ExpectRefused({"list", "orders", "--config", "c", "--log-level", "loud"}, "--log-level");
  for (const char* service : {"", "a/b", "..", "a\nb", "\xff"}) {
    ExpectRefused({"list", service, "--config", "c"}, "bad service name");
  }
  for (const char* timeout : {"-1", "nan", "1.5", "", "99999999999999999999"}) {
    ExpectRefused({"list", "orders", "--config", "c", "--timeout", timeout}, "bad --timeout");
  }
  ExpectRefused({"list", "orders", "--config", "c", "--live", "--json"}, "--json");
  ExpectRefused({"list", "orders", "--config", "c", "--live", "--timeout", "5"}, "--timeout");
  ExpectRefused({"list", "orders", "--config", "c", "--guard", "5"}, "--live");
  ExpectRefused({"status", "orders", "--config", "c", "--quiet", "--verbose"}, "--verbose");
  ExpectRefused({"get", "orders", "0", "--config", "c"}, "bad ID");
  ExpectRefused({"config", "check"}, "FILE");
  ExpectRefused({"doctor", "", "--config", "c"}, "bad service name");
  ExpectRefused({"generate", "pdf"}, "bad FORMAT");
}

TEST(CommandLine, RefusesToPublishWhatReadersCouldNotUse) {
  for (const char* port : {"x=0", "x=65536", "http", "=80", "x=", "x=80 ", "x=-1", "{}", "\xff=80", "81"}) {
    ExpectRefused(kPublish + Words{"--port", port}, "bad --port");
  }
  for (const char* attribute : {"zone", "=a", "", "{}", "zone=\xff", "index=7", "a=2"}) {
    ExpectRefused(kPublish + Words{"--count", "2", "--attribute", "a=1", "--attribute", attribute},
                  "bad --attribute");
  }
  ExpectRefused(kPublish + Words{"--count", "0"}, "bad --count");
  ExpectRefused(kPublish + Words{"--id", "0"}, "bad --id");
  ExpectRefused(kPublish + Words{"--weight", "4294967296"}, "bad --weight");
  ExpectRefused(kPublish + Words{"--status", "fine"}, "bad --status");
}

TEST(CommandLine, OffersHelpWithAnExampleAndTheVersionEverywhere) {
  for (const char* command : {"watch", "list", "status", "get", "services", "doctor", "publish", "config"}) {
    const std::string help = std::get<Information>(Parse({command, "--help"})).text;
    EXPECT_NE(help.find(std::string("Example:\n  halden ") + command), std::string::npos) << help;
    EXPECT_EQ(std::get<Information>(Parse({command, "--version"})).text,
              "halden " HALDEN_VERSION ", ZooKeeper C client " HALDEN_CLIENT_VERSION "\n");
  }
}

TEST(Configuration, ThatCannotBeReadIsAFailureAndNotAnEmptyResult) {
  EXPECT_THROW(LoadEnsembles("/nonexistent/halden.toml", true), Failure);
}

TEST(Configuration, ExampleIsInOrder) {
  const std::string path = testing::TempDir() + "halden-example.toml";
  std::ofstream(path) << std::get<Information>(Parse({"config", "example"})).text;
  const ZooKeeperConfig config = ReadZooKeeperConfig(path);
  EXPECT_EQ(config.ensembles.size(), 3U);
  EXPECT_TRUE(config.faults.empty() && config.warnings.empty());
  std::filesystem::remove(path);
}

}  // namespace
}  // namespace zr::halden::tool
