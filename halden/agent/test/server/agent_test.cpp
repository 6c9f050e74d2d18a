// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "halden/testing/temporary_folder.h"
#include "halden/testing/zookeeper_client.h"
#include "halden/testing/zookeeper_server.h"
#include "server/agent_process.h"

namespace zr::halden::agent {
namespace {

using namespace ::testing;
using halden::testing::kLimit;
using halden::testing::Poll;
using halden::testing::ZooKeeperClient;
using halden::testing::ZooKeeperServer;

ServiceId Id(unsigned number) {
  ServiceId id{};
  id.data[14] = static_cast<std::uint8_t>(number >> 8U);
  id.data[15] = static_cast<std::uint8_t>(number);
  return id;
}

zr::messaging::halden::ServiceInstanceData Data(const std::string& host, const std::string& zone = "a") {
  zr::messaging::halden::ServiceInstanceData data;
  data.set_host(host);
  data.add_ports()->set_port(80);
  auto& attribute = *data.add_attributes();
  attribute.set_key("zone");
  attribute.set_value(zone);
  return data;
}

std::string Header(const std::string& answer, const std::string& name) {
  const auto at = answer.find("\r\n" + name + ": ");
  if (at == std::string::npos) return {};
  const auto begin = at + name.size() + 4;
  return answer.substr(begin, answer.find("\r\n", begin) - begin);
}

std::string Id(const std::string& event) {
  const auto at = event.find("\nid: ");
  return at == std::string::npos ? std::string() : event.substr(at + 5, event.find('\n', at + 5) - at - 5);
}

std::string CurlOutput(const std::string& words) {
  return OutputOf("curl -s -m 20 " + words);
}

class AgentTest : public Test {
 protected:
  void SetUp() override {
    m_server.Start();
    m_publisher.emplace(m_server.ConnectString());
    Configure("eu = \"" + m_server.ConnectString() + '"');
  }
  void Configure(const std::string& dataCenters, const std::string& serve = {}) const {
    std::ofstream(m_config) << "[data_centers]\n" + dataCenters + "\n[serve]\n" + serve + '\n';
  }
  std::string Words(const std::string& more = {}) const {
    return "--service orders --config " + m_config + ' ' + more;
  }
  void StartAgent(const std::string& more = {}) {
    m_agent.emplace(Words(more));
    m_agent->Await("/readyz", "200 OK");
  }
  /// A stream that has told all that is known.
  RawClient Stream(const std::string& target = kEvents, const std::string& headers = {}) const {
    RawClient client(m_agent->Port());
    client.Get(target, headers);
    return client;
  }

  static constexpr const char* kList = "/v1/services/orders/instances";
  static constexpr const char* kEvents = "/v1/services/orders/events";
  const halden::testing::TemporaryFolder m_folder;
  const std::string m_config = m_folder.Path() / "halden.toml";
  ZooKeeperServer m_server;
  std::optional<ZooKeeperClient> m_publisher;
  std::optional<AgentProcess> m_agent;
};

TEST_F(AgentTest, ServesListsThatCanBeWaitedOn) {
  m_publisher->Publish("orders", Id(1), Data("h1"));
  m_publisher->Publish("orders", Id(2), Data("h2", "b"));
  const auto socket = m_folder.Path() / "socket";
  StartAgent("--socket " + socket.string());
  const auto mode = static_cast<unsigned>(std::filesystem::status(socket).permissions());
  EXPECT_EQ((mode & 0444U) >> 1U, mode & 0222U) << "who may read may connect";
  const std::string list = m_agent->Ask(kList);
  EXPECT_THAT(list, AllOf(HasSubstr("\"host\":\"h1\""), HasSubstr("\"host\":\"h2\""), HasSubstr("nosniff")));
  EXPECT_EQ(Header(list, "Halden-Freshness"), "eu=live");
  EXPECT_THAT(m_agent->Ask(std::string(kList) + "?attribute=zone:b&status=ok"),
              AllOf(Not(HasSubstr("h1")), HasSubstr("h2")));
  EXPECT_EQ(CurlOutput("--unix-socket " + socket.string() + " http://localhost" + kList),
            list.substr(list.find("\r\n\r\n") + 4));
  EXPECT_THAT(m_agent->Ask("/v1/services/orders/instances/eu/" + ToString(Id(1))),
              HasSubstr("\"host\":\"h1\""));
  EXPECT_THAT(m_agent->Ask("/"), AllOf(HasSubstr("text/html"), HasSubstr("<!")));

  const std::string tag = "If-None-Match: " + Header(list, "ETag") + "\r\n";
  EXPECT_THAT(m_agent->Ask(kList, tag), StartsWith("HTTP/1.1 304 "));
  EXPECT_THAT(m_agent->Ask(std::string(kList) + "?wait=1", tag), StartsWith("HTTP/1.1 304 "));
  EXPECT_THAT(m_agent->Ask(std::string(kList) + "?wait=60", "If-None-Match: \"other-1\"\r\n"),
              HasSubstr("h2"));
  RawClient waiting = Stream(std::string(kList) + "?wait=60", tag);
  m_agent->Await("/metrics", "halden_http_connections 2\n");
  m_publisher->Unpublish("orders", Id(2));
  EXPECT_THAT(waiting.ReadUntil("\"instances\":["), StartsWith("HTTP/1.1 200 "));
  EXPECT_THAT(waiting.ReadUntil("]}"), AllOf(HasSubstr("h1"), Not(HasSubstr("h2"))));
}

TEST_F(AgentTest, RefusesWhatItShouldAndSaysWhatToDo) {
  StartAgent();
  const std::string host = "Host: localhost\r\n";
  const std::vector<std::pair<std::string, std::string>> refused{
      {"GET /healthz HTTP/1.1\r\nHost: evil.example\r\n\r\n", "403"},
      {"GET /healthz HTTP/1.1\r\nHost: localhost.evil.example\r\n\r\n", "403"},
      {"GET /healthz HTTP/1.1\r\n\r\n", "400"},
      {"GET /healthz HTTP/1.1\r\n" + host + host + "\r\n", "400"},
      {"GET http://localhost/healthz HTTP/1.1\r\n" + host + "\r\n", "400"},
      {"GET /%zz HTTP/1.1\r\n" + host + "\r\n", "400"},
      {"GET /v1/services/%ff/status HTTP/1.1\r\n" + host + "\r\n", "400"},
      {"GET /healthz HTTP/1.1\r\n" + host + "Content-Length: 3\r\n\r\nabc", "400"},
      {"GET /healthz HTTP/1.1\r\n" + host + "Transfer-Encoding: identity\r\n\r\n", "400"},
      {"POST /healthz HTTP/1.1\r\n" + host + "Content-Length: 3\r\n\r\nabc", "405"},
      {"GET /healthz HTTP/1.1\r\n" + host + "X: " + std::string(9000, 'x') + "\r\n\r\n", "431"},
      {"nonsense\r\n\r\n", "400"},
      {"GET /nothing HTTP/1.1\r\n" + host + "Connection: close\r\n\r\n", "404"},
      {"GET /v1/services/other/instances HTTP/1.1\r\n" + host + "Connection: close\r\n\r\n", "404"},
      {"GET /v1/services/orders/instances?data_center=us HTTP/1.0\r\n" + host + "\r\n", "404"},
      {"GET /v1/services/orders/instances?datacenter=eu HTTP/1.0\r\n" + host + "\r\n", "400"},
      {"GET /v1/services/orders/instances?wait=61 HTTP/1.0\r\n" + host + "\r\n", "400"},
      {"GET /v1/services/orders/instances?wait=1&wait=2 HTTP/1.0\r\n" + host + "\r\n", "400"},
      {"GET /v1/services/orders/instances?status=okay HTTP/1.0\r\n" + host + "\r\n", "400"},
  };
  for (const auto& [request, status] : refused) {
    RawClient client(m_agent->Port());
    client.Send(request);
    const std::string answer = client.ReadToEnd();
    EXPECT_THAT(answer, AllOf(StartsWith("HTTP/1.1 " + status + ' '), HasSubstr("application/problem+json"),
                              HasSubstr("\"detail\":\"")))
        << request;
  }
  RawClient ahead(m_agent->Port());  // two at once, and one in pieces
  ahead.Send("HEAD /healthz HTTP/1.1\r\n" + host + "\r\nGET /healthz HTTP/1.1\r\n" + host + "\r\nGET /hea");
  EXPECT_THAT(ahead.ReadUntil("\r\n\r\n"), HasSubstr("200 OK"));
  EXPECT_THAT(ahead.ReadUntil("}"), AllOf(StartsWith("HTTP/1.1 200 OK"), HasSubstr("\"ok\"")));
  ahead.Send("lthz HTTP/1.1\r\nHost: [::1]:7470\r\n\r\n");
  EXPECT_THAT(ahead.ReadUntil("}"), HasSubstr("200 OK"));
}

TEST_F(AgentTest, StreamsGoOnWhereTheyWereCutAndBeginAnewWithAnotherAgent) {
  m_publisher->Publish("orders", Id(1), Data("h1"));
  StartAgent();
  RawClient first = Stream();
  const std::string begin = first.ReadEvent("synced");
  EXPECT_THAT(begin, ContainsRegex("retry: .*event: reset.*\"new\".*event: added.*\"h1\".*event: synced"));
  m_publisher->Publish("orders", Id(2), Data("h2"));
  const std::string added = first.ReadEvent("added");
  EXPECT_THAT(added, HasSubstr("\"h2\""));
  first.Reset();
  m_publisher->Unpublish("orders", Id(1));
  m_publisher->Publish("orders", Id(2), Data("h3"));
  m_agent->Await(kList, "h3");
  const std::string last = "Last-Event-ID: " + Id(added) + "\r\n";
  RawClient second = Stream(kEvents, last);
  EXPECT_THAT(
      second.ReadEvent("modified"),
      AllOf(ContainsRegex("resumed.*event: removed.*event: modified.*\"h3\""), Not(HasSubstr("reset"))));
  EXPECT_THAT(Stream("/v1/events?service=orders", last).ReadUntil("removed"), HasSubstr("resumed"));
  const auto query =
      "?last_event_id=" + Id(added);  // of a stream that was cut where its id had been taken back
  EXPECT_THAT(begin, HasSubstr("\"new\"}\nid: none\n"));
  EXPECT_THAT(Stream(kEvents + query, "Last-Event-ID: none\r\n").ReadUntil("synced"), HasSubstr("\"new\""));

  m_agent->Signal(SIGTERM);
  EXPECT_EQ(second.ReadToEnd(), "retry: 1000\n\n");
  EXPECT_EQ(m_agent->End(), 0);
  StartAgent();
  EXPECT_THAT(Stream(kEvents, last).ReadUntil("synced"), HasSubstr("\"restarted\""));
}

TEST_F(AgentTest, KeepsServingWhatIsStaleAndSaysSo) {
  m_publisher->Publish("orders", Id(1), Data("h1"));
  const auto socket = m_folder.Path() / "socket";
  const std::string snapshots = "--snapshots " + m_folder.Path().string();
  StartAgent(snapshots + " --socket " + socket.string());
  ASSERT_TRUE(Poll(kLimit, [&] { return std::filesystem::exists(m_folder.Path() / "orders@eu.snapshot"); }));
  RawClient stream = Stream();
  stream.ReadUntil("event: synced");
  m_publisher.reset();
  m_server.Stop();
  EXPECT_THAT(stream.ReadUntil("\"stale\""), HasSubstr("event: state"));
  EXPECT_THAT(m_agent->Ask(kList), AllOf(HasSubstr("eu=stale"), HasSubstr("\"h1\"")));
  EXPECT_THAT(m_agent->Ask(std::string(kList) + "?require=live"),
              AllOf(StartsWith("HTTP/1.1 503 "), HasSubstr("Retry-After: "), HasSubstr("eu")));
  EXPECT_THAT(m_agent->Ask("/v1/prometheus/orders"),
              AllOf(HasSubstr("h1:80"), HasSubstr("\"__meta_halden_freshness\":\"stale\"")));
  const std::string everything =
      m_agent->Ask("/v1/services") + m_agent->Ask("/v1/services/orders/status") + m_agent->Ask("/metrics");
  EXPECT_THAT(everything, Not(HasSubstr(m_server.ConnectString())));
  std::filesystem::remove(socket);
  AgentProcess unread(Words("--socket " + socket.string()));  // which has never read it
  AgentProcess restored(Words(snapshots));
  EXPECT_THAT(restored.Await(kList, "eu=restored"), HasSubstr("\"h1\""));
  for (const auto* const agent : {&unread, &restored}) {
    EXPECT_THAT(agent->Ask("/readyz"), StartsWith("HTTP/1.1 503 "));
    EXPECT_THAT(agent->Ask("/v1/prometheus/orders"), StartsWith("HTTP/1.1 503 "));
  }
  m_server.Start();
  EXPECT_THAT(stream.ReadUntil("\"live\""), Not(HasSubstr("removed")));
  unread.Await("/readyz", "200 OK");
  m_agent->Signal(SIGTERM);
  EXPECT_EQ(m_agent->End(), 0);
  EXPECT_TRUE(std::filesystem::exists(socket)) << "it is the other's by now";
  m_publisher.emplace(m_server.ConnectString());
  m_publisher->Publish("orders", Id(1), Data("as-it-was-last"));
  restored.Await(kList, "as-it-was-last");
  restored.Signal(SIGTERM);
  restored.End();
  EXPECT_EQ(std::system(("grep -q as-it-was-last " + m_folder.Path().string() + "/*.snapshot").c_str()), 0);
}

TEST_F(AgentTest, SlowGreedyAndBrokenClientsHarmNobodyElse) {
  for (unsigned i = 0; i < 600; ++i) m_publisher->Publish("orders", Id(i), Data(std::string(1000, 'h')));
  StartAgent();
  [[maybe_unused]] const long before = m_agent->ResidentKiB();
  std::vector<RawClient> clients;
  for (int i = 0; i < 100; ++i) {
    clients.emplace_back(m_agent->Port()).Send("GET /healthz HTTP/1.1\r\nHost: loc");  // never ends
    clients.emplace_back(m_agent->Port(), 4096).Get(kList);                            // never reads
    clients.emplace_back(m_agent->Port(), 4096).Get(kEvents);
    RawClient gone(m_agent->Port());
    gone.Get(kEvents);
    gone.Reset();
  }
  m_agent->Await("/metrics", "halden_http_connections 301\n");  // who has gone is gone
  for (int i = 0; i < 160; ++i) clients.emplace_back(m_agent->Port()).Get(kEvents);
  m_agent->Await("/metrics", "halden_http_rejected_total{reason=\"listeners\"} 4\n");
  for (unsigned round = 0; round < 30; ++round) {  // much happens that they do not read
    for (unsigned i = 0; i < 20; ++i)
      m_publisher->Publish("orders", Id(i), Data("r" + std::to_string(round)));
  }
  RawClient good = Stream();
  EXPECT_THAT(good.ReadUntil("\r\n"), HasSubstr("503"));  // as many stream already
  clients[2].Reset();                                     // one that streams leaves, and there is room
  ASSERT_TRUE(Poll(kLimit, [this] { return Stream().ReadUntil("\r\n").find("200") != std::string::npos; }));
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_THAT(m_agent->Await(kList, "\"r29\""), HasSubstr("\"r29\""));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
  // What each holds: a list that all share, its header, a piece of a stream. The system's own buffers come on top.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // which keep what is freed
  EXPECT_LT(m_agent->ResidentKiB() - before, 30'000);
#endif
  while (clients.size() < 520) clients.emplace_back(m_agent->Port());
  EXPECT_THAT(RawClient(m_agent->Port()).ReadUntil("\r\n"), HasSubstr("503"));
  clients.clear();
  EXPECT_THAT(m_agent->Await("/healthz", "200 OK"), HasSubstr("200 OK"));
}

TEST_F(AgentTest, FollowsItsConfigurationAndTellsItsServiceManager) {
  const std::string path = m_folder.Path() / "notify";
  const int manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(manager, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  std::string told;
  const auto await = [&](const std::string& message) {
    std::array<char, 256> part{};
    return Poll(kLimit, [&] {
      const ssize_t length = recv(manager, part.data(), part.size(), MSG_DONTWAIT);
      if (length > 0) told.append(part.data(), static_cast<std::size_t>(length)) += '\n';
      return told.find(message) != std::string::npos;
    });
  };
  setenv("NOTIFY_SOCKET", path.c_str(), 1);
  setenv("WATCHDOG_USEC", "100000", 1);
  StartAgent();
  unsetenv("NOTIFY_SOCKET");
  unsetenv("WATCHDOG_USEC");
  EXPECT_TRUE(await("READY=1\n") && await("STATUS=1 of 1 data centres live\n") &&
              await("WATCHDOG=1\nWATCHDOG=1\n"))
      << told;

  m_publisher->Publish("orders", Id(1), Data("h1"));
  m_publisher->Publish("bills", Id(2), Data("h2"));
  RawClient stream = Stream();
  stream.ReadUntil("\"h1\"");
  const std::string eu = "eu = \"" + m_server.ConnectString() + '"';
  Configure(eu + "\nus = \"" + m_server.ConnectString("/none") + '"', "services = [\"bills\"]");
  m_agent->Signal(SIGHUP);
  m_agent->Await("/v1/services/bills/instances", "h2");
  EXPECT_THAT(stream.ReadUntil("\"us\""), Not(HasSubstr("removed")));
  EXPECT_TRUE(await("RELOADING=1\nREADY=1\n")) << told;
  std::filesystem::remove(m_config);
  mkfifo(m_config.c_str(), 0600);  // is not read, nor is the next: all stays
  told.clear();
  m_agent->Signal(SIGHUP);
  EXPECT_TRUE(await("RELOADING=1\nREADY=1\n")) << told;
  std::filesystem::remove(m_config);
  Configure("eu = 1");
  m_agent->Signal(SIGHUP);
  Configure(eu);
  m_agent->Signal(SIGHUP);
  EXPECT_THAT(stream.ReadEvent("data_center_removed"), HasSubstr("\"us\""));
  EXPECT_THAT(m_agent->Await("/v1/services", "\"services\":[{\"service\":\"orders\""),
              Not(HasSubstr("bills")));
  m_agent->Signal(SIGTERM);
  EXPECT_TRUE(await("STOPPING=1\n")) << told;
  close(manager);
}

}  // namespace
}  // namespace zr::halden::agent
