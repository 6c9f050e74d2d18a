// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/stat.h>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>

#include "agent/render/command.h"
#include "agent/render/file_renderer.h"
#include "agent/render/rendering.h"
#include "agent/render/template_data.h"
#include "base/file_descriptor.h"
#include "halden/testing/temporary_folder.h"
#include "support/await.h"

namespace zr::halden::agent {
namespace {

using namespace ::testing;
using namespace std::chrono_literals;
using Json = nlohmann::ordered_json;
using Path = std::filesystem::path;

std::string ReadAll(const Path& path) {
  std::ifstream stream(path);
  return {std::istreambuf_iterator<char>(stream), {}};
}

/// A list as the agent serves it, of instances that have these hosts.
std::string List(const std::vector<std::string>& hosts) {
  Json instances = Json::array();
  for (const auto& host : hosts) {
    instances.push_back({{"id", "id-" + host},
                         {"host", host},
                         {"ports", {{{"name", ""}, {"port", 80}}, {{"name", "web.admin"}, {"port", 81}}}},
                         {"status", "ok"},
                         {"weight", 0},
                         {"version", ""},
                         {"attributes", {{"zone", "a"}}}});
  }
  return Json{{"service", "orders"}, {"data_centers", Json::array()}, {"instances", instances}}.dump();
}

class RenderTest : public Test {
 protected:
  RenderTest() {
    m_options.source = File("template");
    m_options.target = File("target");
    m_options.wait = {0ms, 0ms};
    Write("template", "{{#instances}}\n{{host}};\n{{/instances}}\n");
  }

  Path File(const std::string& name) const { return m_folder.Path() / name; }
  void Write(const std::string& name, const std::string& text) const { std::ofstream(File(name)) << text; }
  std::string Target() const { return ReadAll(m_options.target); }

  std::string Render(const std::string& text, const std::string& list) const {
    Write("template", text);
    return Template(File("template")).Render(ReadLists({list}));
  }

  RenderResult Run(const std::vector<std::string>& hosts) const {
    return Rendering(m_options, m_stop.Get()).Run({List(hosts)}).result;
  }

  const halden::testing::TemporaryFolder m_folder;
  const details::FileDescriptor m_stop{eventfd(0, EFD_CLOEXEC)};
  RenderOptions m_options;
};

TEST_F(RenderTest, TemplatesThatAreWrongSayWhere) {
  std::string deep;
  for (int i = 0; i < 101; ++i) deep += "{{#id}}";
  const std::vector<std::pair<std::string, std::string>> wrong = {
      {"a\n  {{#instances}}\nb", ":2:3: Unclosed section"},
      {"{{#instances}}\n{{/instance}}{{/instances}}",
       ":2:1: this closes \"instance\", but \"instances\" is open"},
      {"a\nb {{host", ":2:3: Unclosed tag"},
      {"\n{{/instances}}", ":2:1: this closes \"instances\", but nothing is open"},
      {"{{#instances}}\n x {{hots}}\n{{/instances}}", ":2:4: nothing is called \"hots\""},
      {"{{=<% %>=}}{{\n<% status_is.ok %><%status.id2%>", ":2:19: nothing is called \"status.id2\""},
      {"{{> other}}", ":1:1: a template cannot include"},
      {deep, ":1:701: more than 100 sections are open"},
  };
  for (const auto& [text, place] : wrong) {
    const auto render = [&, wrongText = text] { Render(wrongText, List({"h"})); };
    EXPECT_THAT(render, ThrowsMessage<RenderError>(HasSubstr(place)));
  }
}

TEST_F(RenderTest, EveryNameOfTheListsMayBeUsed) {
  for (const std::string type : {"instance", "state"}) {
    const auto document = ReadAll(HALDEN_JSON_DOCUMENT);
    const auto begin = document.find("{\"type\":\"" + type + "\"");
    const auto example = Json::parse(document.substr(begin, document.find('\n', begin) - begin));
    for (const auto& [name, value] : example.items()) {
      if (name != "instances") {
        EXPECT_TRUE(KnownNames().contains(name)) << name;
      }
    }
  }
}

TEST_F(RenderTest, TellsWhatATemplateCannotFindOut) {
  EXPECT_EQ(Render("{{#services}}{{service}}:{{#instances}}{{address}}:{{port}},{{named_ports.web_admin}}"
                   "{{#weight}}W{{/weight}}{{#version}}V{{/version}}{{#status_is.ok}}+{{/status_is.ok}}"
                   "{{#attribute_list}}{{name}}={{value}}{{/attribute_list}}"
                   "{{#attributes}}{{zone}}{{/attributes}}{{^last}};{{/last}}{{/instances}}{{/services}}",
                   List({"a", "::1", "[::1]", ""})),
            "orders:a:80:80,81+zone=aa;[::1]:80:80,81+zone=aa;[::1]:80:80,81+zone=aa;:80,81+zone=aa");
}

TEST_F(RenderTest, NoInstanceCanAddWordsOrLines) {
  const auto list = List({"h\n  server evil 6.6.6.6:80 # {\"x\"}"});
  EXPECT_EQ(Render("{{#instances}}{{host}}{{/instances}}", list), "h___server_evil_6.6.6.6:80_____x__");
  EXPECT_EQ(Render("{{#instances}}{{{host}}}{{/instances}}", list), "h_  server evil 6.6.6.6:80 # {\"x\"}");
}

TEST_F(RenderTest, ReloadsOnlyWhatHasChangedAndKeepsModeAndLink) {
  std::filesystem::create_symlink("real", m_options.target);
  EXPECT_EQ(Run({"old"}), RenderResult::Written) << "what the link names is not there yet";
  chmod(File("real").c_str(), 0640);
  m_options.check =
      "grep -q a \"$HALDEN_FILE\" && test \"$(cat \"$HALDEN_TARGET\")\" != \"$(cat \"$HALDEN_FILE\")\"";
  m_options.reload = "cat \"$HALDEN_FILE\" >>'" + File("reloads").string() + "'";
  EXPECT_EQ(Run({"a"}), RenderResult::Written);
  EXPECT_EQ(Run({"a"}), RenderResult::Unchanged);
  EXPECT_EQ(Run({"b"}), RenderResult::Failed) << "the check refuses it";
  EXPECT_EQ(ReadAll(File("reloads")), "a;\n");
  EXPECT_EQ(ReadAll(File("real")), "a;\n");
  struct stat status {};
  stat(File("real").c_str(), &status);
  EXPECT_EQ(status.st_mode & 07777U, 0640U);
  EXPECT_TRUE(std::filesystem::is_symlink(m_options.target));
  EXPECT_FALSE(std::filesystem::exists(File(".real.halden-new")));
}

TEST_F(RenderTest, AReloadThatFailedIsMadeUpForThoughNothingChanges) {
  m_options.reload = "test -e '" + File("well").string() + "'";
  EXPECT_EQ(Run({"a"}), RenderResult::Failed);
  EXPECT_EQ(Run({"a"}), RenderResult::Failed) << "also after a restart";
  EXPECT_EQ(Run({}), RenderResult::Failed) << "also while nothing may be written";
  Write("well", "");
  EXPECT_EQ(Run({"a"}), RenderResult::Written);
  EXPECT_EQ(Run({"a"}), RenderResult::Unchanged);
}

TEST_F(RenderTest, AnEmptyListReplacesNothingUnlessAllowed) {
  EXPECT_EQ(Run({}), RenderResult::Written) << "nothing is there";
  EXPECT_EQ(Run({"a"}), RenderResult::Written);
  EXPECT_EQ(Run({}), RenderResult::HeldBack);
  EXPECT_EQ(Target(), "a;\n");
  m_options.allowEmpty = true;
  EXPECT_EQ(Run({}), RenderResult::Written);
  EXPECT_EQ(Target(), "\n");
}

TEST_F(RenderTest, CommandsInheritNeitherDescriptorsNorSignalsAndEndInTime) {
  const details::FileDescriptor leak(dup(STDOUT_FILENO));
  sigset_t all;
  sigset_t previous;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &previous);
  const auto previousHandler = signal(SIGPIPE, SIG_IGN);
  EXPECT_EQ(RunCommand("ls /proc/self/fd | wc -l; kill -PIPE $$", {}, 10s, m_stop.Get()),
            "ended by signal 13: 4");  // the three, and the folder's own
  signal(SIGPIPE, previousHandler);
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(RunCommand("echo said; sleep 60 & sleep 60", {}, 100ms, m_stop.Get()),
            "killed: it took too long: said");
  EXPECT_THAT(RunCommand("for i in 1 2 3 4; do yes & done; yes", {}, 100ms, m_stop.Get()),
              StartsWith("killed: it took too long: y\n"));
  EXPECT_EQ(RunCommand("sleep 60 &", {}, 60s, m_stop.Get()), "")
      << "what it leaves running is not waited for";
  eventfd_write(m_stop.Get(), 1);
  EXPECT_EQ(RunCommand("sleep 60", {}, 60s, m_stop.Get()), "killed: the agent ends");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 50s);
}

TEST_F(RenderTest, ABurstIsOneFileAndAFailureIsTriedAgain) {
  boost::asio::io_context loop;
  const auto work = boost::asio::make_work_guard(loop);
  std::vector<std::string> hosts = {"a"};
  int asked = 0;
  m_options.reload = "test -e '" + File("well").string() + "'";
  m_options.wait = {20ms, 60'000ms};
  FileRenderer renderer(loop.get_executor(), m_options,
                        [&] { return ++asked == 1 ? std::vector<std::string>() : std::vector{List(hosts)}; });
  const auto await = [&](auto condition) {
    const auto end = std::chrono::steady_clock::now() + halden::testing::kLimit;
    while (!condition() && loop.run_one_until(end) > 0) {
    }
    return condition();
  };
  renderer.Changed();
  ASSERT_TRUE(await([&] { return asked == 1; })) << "not all was read";
  renderer.Changed();
  ASSERT_TRUE(await([&] { return renderer.Counters().failed == 1; }));
  EXPECT_THAT(renderer.Counters().lastFailure, HasSubstr("reload"));
  Write("well", "");
  ASSERT_TRUE(await([&] { return renderer.Counters().written == 1; })) << "nothing else has changed";
  for (const auto* host : {"b", "c", "d", "e"}) {
    hosts.emplace_back(host);
    renderer.Changed();
  }
  ASSERT_TRUE(await([&] { return renderer.Counters().written == 2; }));
  EXPECT_EQ(Target(), "a;\nb;\nc;\nd;\ne;\n");
  EXPECT_EQ(asked, 4);
}

}  // namespace
}  // namespace zr::halden::agent
