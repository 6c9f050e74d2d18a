// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "cli/command_line.h"
#include "cli/generate.h"
#include "io/failure.h"

namespace zr::halden::tool {
namespace {

using testing::HasSubstr;
using Arguments = std::vector<const char*>;

const Arguments kPublish{"publish", "a", "--config", "c", "--dc", "eu", "--host", "[::1]", "--port", "80"};

Arguments operator+(Arguments words, const Arguments& more) {
  words.insert(words.end(), more.begin(), more.end());
  return words;
}

Invocation Parse(const Arguments& words) {
  const Arguments all = Arguments{"halden"} + words;
  return ParseCommandLine(static_cast<int>(all.size()), all.data());
}

/// That the command line is wrong usage, told in one line that has `part`.
void ExpectRefused(const Arguments& words, const std::string& part) {
  try {
    Parse(words);
    ADD_FAILURE() << "taken: " << words.back();
  } catch (const Failure& e) {
    EXPECT_EQ(e.Code(), kWrongUsage);
    EXPECT_THAT(e.what(), AllOf(HasSubstr(part), Not(HasSubstr("\n"))));
  }
}

TEST(CommandLine, ReadsAnAccessListAndRepeatsNoneThatIsWrong) {
  EXPECT_EQ(std::get<PublishOptions>(Parse(kPublish + Arguments{"--acl", "creator"})).acl, "creator");
  ExpectRefused(kPublish + Arguments{"--acl", "auth::r,digest:a:pass:r"},
                "bad --acl, character 16: not a digest");
  ExpectRefused(kPublish + Arguments{"--acl", ""}, "bad --acl, character 1: ");
}

TEST(CommandLine, ReadsPortsAndAttributesAsTyped) {
  const Arguments more{"--port", "admin=010", "--attribute", "[a=b]", "--attribute", "url=x=y"};
  const auto options = std::get<PublishOptions>(Parse(kPublish + more + Arguments{"--status", "degraded"}));
  EXPECT_EQ(
      options.instance.ShortDebugString(),
      R"(host: "[::1]" ports { port: 80 } ports { name: "admin" port: 10 } status_ext: STATUS_EXT_DEGRADED )"
      R"(attributes { key: "[a" value: "b]" } attributes { key: "url" value: "x=y" })");
}

TEST(CommandLine, ReadsIdsInAnyCaseAndPartsOfSeconds) {
  const auto get = std::get<GetOptions>(
      Parse({"get", "a", "3F2a8C1e-5", "--config", "c", "--dc", "eu", "--dc", "us", "--timeout", "0.25"}));
  EXPECT_EQ(get.id, "3f2a8c1e-5");
  EXPECT_EQ(get.Patience(), std::chrono::milliseconds(250));
  EXPECT_THAT(get.dataCenters, testing::ElementsAre("eu", "us"));
}

TEST(CommandLine, SaysWhatIsWrongInOneLine) {
  ExpectRefused({}, "a command is missing: list, status, ");
  ExpectRefused({"lst", "orders"}, "unknown command 'lst', did you mean list?");
  ExpectRefused({"config", "chek"}, "unknown command 'chek', did you mean check? (halden config --help ");
  ExpectRefused({"watch", "--config", "c"}, "SERVICE");
  const Arguments list{"list", "orders", "--config", "c"};
  ExpectRefused(list + Arguments{"--jsno"}, "unknown option '--jsno', did you mean --json?");
  ExpectRefused(list + Arguments{"b", "a"}, "'b' 'a'");
  ExpectRefused(list + Arguments{"--log-level", "loud"}, "--log-level");
  for (const char* service : {"", "a/b", "..", "a\nb", "\xff"}) {
    ExpectRefused({"doctor", service, "--config", "c"}, "bad service name");
  }
  for (const char* timeout : {"-1", "nan", "1e3", "", "86401", "99999999999999999999"}) {
    ExpectRefused(list + Arguments{"--timeout", timeout}, "bad --timeout");
  }
  ExpectRefused(list + Arguments{"--live", "--json"}, "--json");
  ExpectRefused(list + Arguments{"--live", "--timeout", "5"}, "--timeout");
  ExpectRefused(list + Arguments{"--guard", "5"}, "--live");
  ExpectRefused(list + Arguments{"--quiet", "--verbose"}, "--verbose");
  for (const char* id : {"", "3g", "3f2a8c1e5b", "3f2a8c1e-5b7d-4e09-9a64-0c1d2e3f4a5b0"}) {
    ExpectRefused({"get", "orders", id, "--config", "c"}, "bad ID");
  }
  ExpectRefused({"generate", "pdf"}, "bad FORMAT");
}

TEST(CommandLine, RefusesToPublishWhatReadersCouldNotUse) {
  for (const char* port : {"x=0", "x=65536", "http", "=80", "x=", "x=80 ", "x=-1", "{}", "\xff=80", "81"}) {
    ExpectRefused(kPublish + Arguments{"--port", port}, "bad --port");
  }
  for (const char* attribute : {"zone", "=a", "", "{}", "zone=\xff", "index=7", "a=2"}) {
    ExpectRefused(kPublish + Arguments{"--count", "2", "--attribute", "a=1", "--attribute", attribute},
                  "bad --attribute");
  }
  ExpectRefused(kPublish + Arguments{"--count", "0"}, "bad --count");
  ExpectRefused(kPublish + Arguments{"--id", "0"}, "bad --id");
  ExpectRefused(kPublish + Arguments{"--weight", "4294967296"}, "bad --weight");
  ExpectRefused(kPublish + Arguments{"--status", "fine"}, "bad --status");
}

TEST(CommandLine, OffersHelpWithAnExampleAndTheVersionEverywhere) {
  for (const std::string command :
       {"watch", "list", "status", "get", "services", "doctor", "publish", "config"}) {
    const std::string help = std::get<Information>(Parse({command.c_str(), "--help"})).text;
    EXPECT_THAT(help, HasSubstr("Example:\n  halden " + command));
    EXPECT_EQ(help.find("(required)") != std::string::npos, command == "publish");
    EXPECT_THAT(std::get<Information>(Parse({command.c_str(), "--version"})).text,
                HasSubstr(HALDEN_CLIENT_VERSION));
  }
}

TEST(Generated, TextsLeaveOutWhatIsHiddenAndAreQuotedForTheirReaders) {
  std::string text;
  bool flag = false;
  CLI::App app("Does it", "halden");
  auto& outer = *app.add_subcommand("outer", "Its own's: command");
  auto& inner = *outer.add_subcommand("inner", "Deeper");
  inner.add_option("FILE", text, "What to read")->required();
  inner.add_option("--level", text, "low, middle or high")->type_name("[N=]LEVEL");
  inner.add_option("--dc", text, "Where")->type_name("NAME");
  inner.add_flag("--odd", flag, "It's [so]");
  inner.footer(".starts with a dot\n\nExample:\n  halden \\n\n");
  app.add_subcommand("secret", "Hidden")->group("");
  const auto commands = Describe(app);
  const std::string bash = BashCompletion(commands);
  EXPECT_THAT(bash, HasSubstr("compgen -W 'low middle high'"));
  EXPECT_THAT(bash, HasSubstr("'outer inner') words='-h --help --level --dc --odd' files=yes ;;"));
  EXPECT_THAT(bash, HasSubstr("--dc) _halden_ask data-centers; return ;;"));
  const std::string zsh = ZshCompletion(commands);
  EXPECT_THAT(zsh, HasSubstr(R"('--odd[It'\''s \[so\]]')"));
  EXPECT_THAT(zsh, HasSubstr(R"('--level[low, middle or high]:N=LEVEL:(low middle high)')"));
  EXPECT_THAT(zsh, HasSubstr(R"(outer\:"Its own'\''s\: command")"));
  const std::string manual = ManualPage(commands);
  EXPECT_THAT(manual, HasSubstr("\n\\&.starts with a dot\n.PP\nExample:\n.nf\n  halden \\en\n.fi\n"));
  EXPECT_THAT(manual, HasSubstr("\\fBouter inner\\fR \\fIFILE\\fR [\\fIOPTION\\fR ...]"));
}

}  // namespace
}  // namespace zr::halden::tool
