// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <cstdint>
#include <fstream>
#include <memory>
#include <string>

#include "agent/bench/process.h"
#include "halden/testing/held_port.h"
#include "halden/testing/temporary_folder.h"
#include "halden/testing/zookeeper_client.h"
#include "halden/testing/zookeeper_server.h"
#include "server/agent_process.h"

namespace zr::halden::agent {
namespace {

using namespace ::testing;
using halden::testing::HeldPort;

ServiceId Id(std::uint8_t number) {
  ServiceId id{};
  id.data[15] = number;
  return id;
}

std::string At(const HeldPort& port) {
  return "127.0.0.1:" + std::to_string(port.Number());
}

/// Prometheus as docs/agent.md has it, but faster. The instances are at the agent's own port: it answers for them.
class PrometheusTest : public Test {
 protected:
  void SetUp() override {
    if (OutputOf("command -v prometheus").empty())
      GTEST_SKIP() << "no Prometheus: scripts/setup.sh --tests installs it";
    m_zookeeper.Start();
    std::ofstream(File("prometheus.yml"))
        << "global: { scrape_interval: 200ms, scrape_timeout: 200ms }\nscrape_configs:\n"
           "- job_name: orders\n"
           "  http_sd_configs: [{ refresh_interval: 100ms, url: 'http://" +
               At(m_port) +
               "/v1/prometheus/orders' }]\n"
               "  relabel_configs: [{ source_labels: [__meta_halden_id], target_label: instance_id }]\n"
               "- job_name: halden\n  static_configs: [{ targets: ['" +
               At(m_port) + "'] }]\n";
    m_agent = std::make_unique<AgentProcess>("--service orders --config " + m_config.Path(), m_port.Number());
    m_prometheus = std::make_unique<Process>(
        "prometheus --log.level=error --scrape.discovery-reload-interval=100ms --config.file=" +
        File("prometheus.yml") + " --storage.tsdb.path=" + File("data") +
        " --web.listen-address=" + At(m_web) + " >/dev/null 2>&1");
  }
  std::string File(const std::string& name) const { return m_folder.Path() / name; }
  void Join(std::uint8_t number) const {
    zr::messaging::halden::ServiceInstanceData data;
    data.set_host("127.0.0.1");
    data.add_ports()->set_port(m_port.Number());
    auto& attribute = *data.add_attributes();
    attribute.set_key("rack-row");
    attribute.set_value("a \"b\"");
    Zookeeper().Publish("orders", Id(number), data);
  }
  halden::testing::ZooKeeperClient Zookeeper() const {
    return halden::testing::ZooKeeperClient(m_zookeeper.ConnectString());
  }
  /// What Prometheus says to it.
  std::string Ask(const std::string& words) const {
    return OutputOf("curl -s -m 5 -G http://" + At(m_web) + "/api/v1/" + words);
  }
  std::string Query(const std::string& query) const {
    return Ask("query --data-urlencode 'query=" + query + "'");
  }
  /// Waits for the query's number, and returns the last answer's.
  std::string Await(const std::string& query, const std::string& value) const {
    std::string answer;
    halden::testing::Poll(halden::testing::kLimit, [&] {
      return (answer = Query(query)).find(",\"" + value + "\"]") != std::string::npos;
    });
    return answer;
  }

  const halden::testing::TemporaryFolder m_folder;
  const HeldPort m_port;
  const HeldPort m_web;
  halden::testing::ZooKeeperServer m_zookeeper;
  const halden::testing::ConfigFile m_config{{{"eu", m_zookeeper.ConnectString()}}};
  std::unique_ptr<AgentProcess> m_agent;
  std::unique_ptr<Process> m_prometheus;
};

TEST_F(PrometheusTest, ScrapesTheAgentAndWhatItDiscoversThroughIt) {
  Join(1);
  Join(2);
  EXPECT_THAT(Await("sum(up{job=\"orders\"})", "2"), HasSubstr("success"));
  EXPECT_THAT(Ask("targets"), AllOf(HasSubstr(R"("__meta_halden_attribute_rack_row":"a \"b\"")"),
                                    HasSubstr(R"("__meta_halden_freshness":"live")")));
  Zookeeper().Unpublish("orders", Id(1));
  EXPECT_THAT(Await("sum(up{job=\"orders\"})", "1"), HasSubstr("success"));
  EXPECT_THAT(Query("up{job=\"orders\"}"), HasSubstr(ToString(Id(2))));
  EXPECT_THAT(Await("halden_instances{job=\"halden\",data_center=\"eu\"}", "1"), HasSubstr("\"orders\""));
}

}  // namespace
}  // namespace zr::halden::agent
