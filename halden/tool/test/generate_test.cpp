// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "cli/generate.h"

#include <gtest/gtest.h>

#include <CLI/CLI.hpp>
#include <string>

namespace zr::halden::tool {
namespace {

/// A program with what is awkward in a shell or in troff.
std::vector<CommandSpec> Commands() {
  static CLI::App app("Does it", "halden");
  static std::string text;
  static bool flag = false;
  if (app.get_subcommands({}).empty()) {
    auto& outer = *app.add_subcommand("outer", "Its own's: command");
    auto& inner = *outer.add_subcommand("inner", "Deeper");
    inner.add_option("FILE", text, "What to read")->required();
    inner.add_option("--level", text, "low, middle or high")->type_name("[N=]LEVEL");
    inner.add_flag("--odd", flag, "It's [so]");
    inner.footer(".starts with a dot\n\nExample:\n  halden \\n\n");
    app.add_subcommand("secret", "Hidden")->group("");
  }
  return Describe(app);
}

void ExpectIn(const std::string& text, const std::string& part) {
  EXPECT_NE(text.find(part), std::string::npos) << part << "\nis not in\n" << text;
}

TEST(Describe, LeavesOutWhatIsHiddenAndTellsFlagsFromValues) {
  const auto commands = Commands();
  ASSERT_EQ(commands.size(), 3U);
  EXPECT_EQ(commands[0].subcommands, std::vector<std::string>{"outer"});
  const auto& inner = commands[2];
  EXPECT_EQ(inner.words, (std::vector<std::string>{"outer", "inner"}));
  ASSERT_EQ(inner.options.size(), 3U);
  EXPECT_EQ(inner.options[1].choices, (std::vector<std::string>{"low", "middle", "high"}));
  EXPECT_EQ(inner.options[2].value, "");
}

TEST(Generated, TextsAreQuotedForTheirReaders) {
  const std::string bash = BashCompletion(Commands());
  ExpectIn(bash, "'outer:inner') command='outer inner' ;;");
  ExpectIn(bash, "compgen -W 'low middle high'");
  ExpectIn(bash, "'outer inner') words='-h --help --level --odd' files=yes ;;");
  const std::string zsh = ZshCompletion(Commands());
  ExpectIn(zsh, R"('--odd[It'\''s \[so\]]')");
  ExpectIn(zsh, R"('--level[low, middle or high]:N=LEVEL:(low middle high)')");
  ExpectIn(zsh, R"(outer\:"Its own'\''s\: command")");
  const std::string manual = ManualPage(Commands());
  ExpectIn(manual, "\n\\&.starts with a dot\n.PP\nExample:\n.nf\n  halden \\en\n.fi\n");
  ExpectIn(manual, "\\fBouter inner\\fR \\fIFILE\\fR [\\fIOPTION\\fR ...]");
}

}  // namespace
}  // namespace zr::halden::tool
