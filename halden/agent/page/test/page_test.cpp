// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "agent/bench/process.h"
#include "halden/testing/poll.h"
#include "halden/testing/temporary_folder.h"
#include "halden/testing/zookeeper_client.h"
#include "halden/testing/zookeeper_server.h"

namespace zr::halden::agent {
namespace {

using namespace ::testing;
using Json = nlohmann::json;

/// A page in a browser, which is spoken to in its debugging protocol.
class Browser {
 public:
  explicit Browser(const std::string& program, const std::string& url)
      : m_program(program +
                      " --headless --no-sandbox --disable-gpu --remote-debugging-pipe --user-data-dir='" +
                      m_folder.Path().string() + "' about:blank 2>/dev/null",
                  4, 3) {
    const Json target = Call("Target.createTarget", {{"url", "about:blank"}})["targetId"];
    m_session = Call("Target.attachToTarget", {{"targetId", target}, {"flatten", true}})["sessionId"];
    for (const auto* domain : {"Page", "Runtime", "Log"})
      Call(std::string(domain) + ".enable", Json::object());
    Call("Page.navigate", {{"url", url}});
  }

  Json Evaluate(const std::string& script) {
    return Call("Runtime.evaluate", {{"expression", script}})["result"].value("value", Json());
  }

  /// Until the page's text, as it is seen, contains all of it.
  AssertionResult Shows(const std::vector<std::string>& texts) {
    std::string seen;
    const auto isShown = [&] {
      const Json text = Evaluate("document.body.innerText.replace(/\\s+/g, ' ')");
      seen = text.is_string() ? text.get<std::string>() : "";
      return std::all_of(texts.begin(), texts.end(),
                         [&](const auto& one) { return seen.find(one) != std::string::npos; });
    };
    if (halden::testing::Poll(halden::testing::kLimit, isShown)) return AssertionSuccess();
    return AssertionFailure() << "not all of it in: " << seen;
  }

  /// What the browser has found wrong: errors of scripts, of loading, of the page's own security policy.
  const std::vector<std::string>& Complaints() const { return m_complaints; }

 private:
  Json Call(const std::string& method, const Json& parameters) {
    Json request{{"id", ++m_lastId}, {"method", method}, {"params", parameters}};
    if (!m_session.empty()) request["sessionId"] = m_session;
    m_program.Write(request.dump() + '\0');
    while (true) {
      const auto text = m_program.Read('\0');
      if (!text) return Json::object();
      const Json answer = Json::parse(*text);
      if (answer.value("id", 0) == m_lastId) return answer.value("result", Json::object());
      const auto event = answer.value("method", std::string());
      if (event == "Log.entryAdded" || event == "Runtime.exceptionThrown") m_complaints.push_back(*text);
    }
  }

  const halden::testing::TemporaryFolder m_folder;
  Process m_program;
  std::string m_session;
  int m_lastId = 0;
  std::vector<std::string> m_complaints;
};

std::string FindBrowser() {
  for (const std::string name : {"chromium-headless-shell", "chromium"}) {
    if (std::system(("command -v " + name + " >/dev/null").c_str()) == 0)
      return name;  // NOLINT(concurrency-*)
  }
  return "";
}

void Publish(const halden::testing::ZooKeeperServer& server, std::uint8_t number) {
  zr::messaging::halden::ServiceInstanceData data;
  data.set_host("host-" + std::to_string(number));
  data.add_ports()->set_port(8080);
  ServiceId id{};
  id.data[0] = number;
  halden::testing::ZooKeeperClient(server.ConnectString()).Publish("orders", id, data);
}

TEST(PageTest, ShowsWhatHappensToDataCentresInstancesAndTheAgentItself) {
  const auto program = FindBrowser();
  if (program.empty()) GTEST_SKIP() << "no Chromium: scripts/setup.sh --tests installs it";
  halden::testing::ZooKeeperServer eu;
  halden::testing::ZooKeeperServer us;
  eu.Launch();
  us.Start();
  eu.Start();
  Publish(eu, 1);
  Publish(us, 2);
  const halden::testing::ConfigFile config({{"eu", eu.ConnectString()}, {"us", us.ConnectString()}});
  Process agent(HALDEN_COMMAND " serve --service orders --listen 127.0.0.1:0 --config " + config.Path(),
                STDOUT_FILENO);
  const auto line = agent.Read('\n').value_or("");
  const auto url = line.find("http://");
  ASSERT_NE(url, std::string::npos) << line;
  Browser browser(program, line.substr(url));

  EXPECT_TRUE(browser.Shows({"2 of 2", "eu ● live 1", "us ● live 1", "host-1:8080", "2 of 2 shown"}));
  us.Kill();
  EXPECT_TRUE(
      browser.Shows({"1 of 2", "us ▲ stale for", "shown as last known", "ok when last seen us host-2"}));
  Publish(eu, 3);
  EXPECT_TRUE(browser.Shows({"host-3:8080", "joined 1", "3 of 3 shown", "new"}));
  us.Start();
  EXPECT_TRUE(browser.Shows({"2 of 2", "us ● live"}));
  browser.Evaluate(
      "document.getElementById('filter').value = 'host-3 eu';"
      "document.getElementById('filter').dispatchEvent(new Event('input'))");
  EXPECT_TRUE(browser.Shows({"1 of 3 shown, 1 fit the filter"}));
  EXPECT_THAT(browser.Complaints(), IsEmpty());
  agent.Signal(SIGKILL);
  agent.End();
  EXPECT_TRUE(browser.Shows({"Agent unreachable since", "◌ live when last heard of"}));
}

}  // namespace
}  // namespace zr::halden::agent
