// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// The agent beside its yardsticks: etcd's watch over HTTP for the time in which many learn of a change, nginx with a file of
// the same size for lists. All in one run: on a busy machine only their ratios tell something.
#include <fmt/format.h>
#include <sys/epoll.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <functional>
#include <memory>
#include <numeric>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "halden/testing/held_port.h"
#include "halden/testing/temporary_folder.h"
#include "halden/testing/zookeeper_client.h"
#include "halden/testing/zookeeper_server.h"
#include "process.h"

namespace zr::halden::agent {
namespace {

using std::chrono::steady_clock;
using testing::TemporaryFolder;

constexpr std::size_t kSubscribers = 1000;
constexpr int kRounds = 30;

ServiceId Id(unsigned number) {
  ServiceId id{};
  id.data[14] = static_cast<std::uint8_t>(number >> 8U);
  id.data[15] = static_cast<std::uint8_t>(number);
  return id;
}

zr::messaging::halden::ServiceInstanceData Data(const std::string& host) {
  zr::messaging::halden::ServiceInstanceData data;
  data.set_host(host);
  data.set_version("1.2.3");
  data.add_ports()->set_port(8080);
  auto& attribute = *data.add_attributes();
  attribute.set_key("zone");
  attribute.set_value("a");
  return data;
}

/// Many clients of one server, each with an answer that does not end.
class Subscribers {
 public:
  Subscribers(std::uint16_t port, std::size_t count, const std::string& request) {
    for (std::size_t i = 0; i < count; ++i) {
      Client& client = m_clients.emplace_back(Client{ConnectTo(port), {}, false});
      SendAll(client.socket, request);
      epoll_event event{};
      event.events = EPOLLIN;
      event.data.u64 = i;
      epoll_ctl(m_epoll, EPOLL_CTL_ADD, client.socket, &event);
    }
  }
  Subscribers(const Subscribers&) = delete;
  Subscribers& operator=(const Subscribers&) = delete;
  ~Subscribers() {
    for (const Client& client : m_clients) close(client.socket);
    close(m_epoll);
  }

  std::size_t Size() const { return m_clients.size(); }

  /// Whether a client has what is waited for, given what has come lately: once more what came shortly before.
  using HasIt = std::function<bool(std::size_t client, std::string_view text)>;

  /// Milliseconds from `begin` until each had `text`; fewer than there are clients when some did not within 60 seconds.
  std::vector<double> Await(const std::string& text, steady_clock::time_point begin) {
    return Await([&text](std::size_t, std::string_view come) { return come.find(text) != come.npos; }, begin);
  }
  std::vector<double> Await(const HasIt& hasIt, steady_clock::time_point begin) {
    std::vector<double> times;
    for (Client& client : m_clients) client.has = false;
    while (times.size() < m_clients.size() && steady_clock::now() - begin < std::chrono::seconds(60)) {
      std::array<epoll_event, 256> events{};
      const int ready = epoll_wait(m_epoll, events.data(), events.size(), 1000);
      for (int i = 0; i < ready; ++i)
        Read(events.at(static_cast<std::size_t>(i)).data.u64, hasIt, begin, times);
    }
    return times;
  }

 private:
  struct Client {
    int socket;
    std::string text;
    bool has;
  };

  void Read(std::size_t number, const HasIt& hasIt, steady_clock::time_point begin,
            std::vector<double>& times) {
    Client& client = m_clients[number];
    std::array<char, 65536> part{};
    const ssize_t length = recv(client.socket, part.data(), part.size(), MSG_DONTWAIT);
    if (length <= 0) return;
    client.text.append(part.data(), static_cast<std::size_t>(length));
    if (!client.has && hasIt(number, client.text)) {
      client.has = true;
      times.push_back(std::chrono::duration<double, std::milli>(steady_clock::now() - begin).count());
    }
    constexpr std::size_t kept = 1024;  // what may hold the beginning of a text
    if (client.text.size() > kept) client.text.erase(0, client.text.size() - kept);
  }

  int m_epoll = epoll_create1(EPOLL_CLOEXEC);
  std::vector<Client> m_clients;
};

double Quantile(std::vector<double> values, double share) {
  std::sort(values.begin(), values.end());
  return values.empty() ? 0
                        : values[static_cast<std::size_t>(share * static_cast<double>(values.size() - 1))];
}

/// `change` makes the change; each subscriber then gets the text that it returns.
void MeasureChanges(const char* name, Subscribers& subscribers, const std::function<std::string(int)>& textOf,
                    const std::function<void(int)>& change) {
  std::vector<double> medians;
  std::vector<double> lates;
  for (int round = 0; round < kRounds; ++round) {
    const auto begin = steady_clock::now();
    change(round);
    const auto times = subscribers.Await(textOf(round), begin);
    if (times.size() < kSubscribers) fmt::print("  {}: only {} were told\n", name, times.size());
    medians.push_back(Quantile(times, 0.5));
    lates.push_back(Quantile(times, 0.99));
  }
  fmt::print("  {:<8} median {:7.1f} ms   p99 {:7.1f} ms  (medians of {} rounds)\n", name,
             Quantile(medians, 0.5), Quantile(lates, 0.5), kRounds);
}

std::string Get(const std::string& target) {
  return "GET " + target + " HTTP/1.1\r\nHost: localhost\r\n\r\n";
}

std::string Base64(const std::string& text) {
  return Trimmed(OutputOf("printf %s '" + text + "' | base64 -w0"));
}

void MeasureEtcd(const TemporaryFolder& folder) {
  if (OutputOf("command -v etcd").empty()) return fmt::print("  etcd is not installed\n");
  testing::HeldPort port;
  testing::HeldPort peer;
  const std::string url = fmt::format("http://127.0.0.1:{}", port.Number());
  const std::string peerUrl = fmt::format("http://127.0.0.1:{}", peer.Number());
  const Process etcd(
      fmt::format("etcd --data-dir {}/etcd --listen-client-urls {} --advertise-client-urls {} "
                  "--listen-peer-urls {} --initial-advertise-peer-urls {} --initial-cluster default={} "
                  "--unsafe-no-fsync --log-level error >/dev/null 2>&1",
                  folder.Path().string(), url, url, peerUrl, peerUrl, peerUrl));
  const auto put = [&](const std::string& value) {
    return OutputOf(fmt::format("curl -s -m 5 {}/v3/kv/put -d '{{\"key\":\"{}\",\"value\":\"{}\"}}'", url,
                                Base64("key"), value));
  };
  testing::Poll(testing::kLimit, [&] { return put("x").find("revision") != std::string::npos; });
  const std::string body = fmt::format(R"({{"create_request":{{"key":"{}"}}}})", Base64("key"));
  Subscribers subscribers(
      port.Number(), kSubscribers,
      fmt::format("POST /v3/watch HTTP/1.1\r\nHost: localhost\r\nContent-Length: {}\r\n\r\n{}", body.size(),
                  body));
  static_cast<void>(subscribers.Await("created", steady_clock::now()));
  std::vector<std::string> values;
  for (int round = 0; round < kRounds; ++round) values.push_back(Base64(fmt::format("value-{:06}", round)));
  const int publisher = ConnectTo(port.Number());  // one connection, as the agent's publisher has
  MeasureChanges(
      "etcd", subscribers, [&](int round) { return values.at(static_cast<std::size_t>(round)); },
      [&](int round) {
        const std::string text = fmt::format(R"({{"key":"{}","value":"{}"}})", Base64("key"),
                                             values.at(static_cast<std::size_t>(round)));
        SendAll(publisher,
                fmt::format("POST /v3/kv/put HTTP/1.1\r\nHost: localhost\r\nContent-Length: {}\r\n\r\n{}",
                            text.size(), text));
      });
  close(publisher);
}

double RequestsASecond(const std::string& url, const std::string& header = {}) {
  const std::string output = OutputOf(fmt::format("wrk -t1 -c16 -d4s {} {}", header, url));
  const auto at = output.find("Requests/sec:");
  return at == std::string::npos ? 0 : std::atof(output.c_str() + at + 13);
}

void MeasureLists(const TemporaryFolder& folder, const std::string& agent) {
  if (OutputOf("command -v wrk && command -v nginx").find("nginx") == std::string::npos)
    return fmt::print("  wrk or nginx is not installed\n");
  const std::string list = agent + "/v1/services/orders/instances";
  const std::string root = folder.Path().string();
  OutputOf(fmt::format("curl -s -o {}/list.json {}", root, list));
  testing::HeldPort port;
  std::ofstream(root + "/nginx.conf") << fmt::format(
      "daemon off; master_process off; worker_processes 1; pid {0}/nginx.pid; error_log /dev/null;\n"
      "events {{}} http {{ access_log off; sendfile on; keepalive_requests 1000000; server {{ listen "
      "127.0.0.1:{1}; root {0}; }} }}\n",
      root, port.Number());
  const Process nginx(fmt::format("nginx -c {}/nginx.conf >/dev/null 2>&1", root));
  const std::string file = fmt::format("http://127.0.0.1:{}/list.json", port.Number());
  testing::Poll(testing::kLimit, [&] { return !OutputOf("curl -s -I " + file).empty(); });
  const std::string tag = Trimmed(OutputOf("curl -sI " + list + " | sed -n 's/^ETag: //p'"));
  std::vector<double> full;
  std::vector<double> unchanged;
  std::vector<double> yardstick;
  for (int round = 0; round < 3; ++round) {
    yardstick.push_back(RequestsASecond(file));
    full.push_back(RequestsASecond(list));
    unchanged.push_back(RequestsASecond(list, "-H 'If-None-Match: " + tag + "'"));
  }
  fmt::print("  agent {:.0f}/s, agent 304 {:.0f}/s, nginx {:.0f}/s: {:.2f} of it\n", Quantile(full, 0.5),
             Quantile(unchanged, 0.5), Quantile(yardstick, 0.5),
             Quantile(full, 0.5) / Quantile(yardstick, 0.5));
}

/// Each of 1,500 instances changes twice. A stream has a change when it was told it, or the later one of the same
/// instance, with which it was merged.
void MeasureBurst(testing::ZooKeeperClient& publisher, Subscribers& streams) {
  constexpr unsigned changes = 3000;
  std::vector<std::vector<bool>> told(streams.Size(), std::vector<bool>(changes));
  const auto hasAll = [&told](std::size_t stream, std::string_view text) {
    constexpr std::string_view mark = "\"burst-";
    auto& has = told[stream];
    for (auto at = text.find(mark); at != text.npos; at = text.find(mark, at + 1)) {
      const auto number = text.substr(at + mark.size(), 5);  // with the quote behind: not cut off
      if (number.ends_with('"')) has.at(std::stoul(std::string(number))) = true;
    }
    return std::find(has.begin() + changes / 2, has.end(), false) == has.end();
  };
  const auto begin = steady_clock::now();
  for (unsigned i = 0; i < changes; ++i)
    publisher.Publish("many", Id(i % (changes / 2)), Data(fmt::format("burst-{:04}", i)));
  const auto times = streams.Await(hasAll, begin);
  const auto merged =
      std::accumulate(told.begin(), told.end(), std::ptrdiff_t{0}, [](std::ptrdiff_t sum, const auto& has) {
        return sum + std::count(has.begin(), has.begin() + changes / 2, false);
      });
  fmt::print(
      "  burst of {} changes: {} of {} streams have all, {:.0f} ms after the first; {:.1f} % were merged\n",
      changes, times.size(), told.size(), times.empty() ? 0 : times.back(),
      100.0 * static_cast<double>(merged) / static_cast<double>(changes * told.size()));
}

/// Of 10,000 instances, with 256 streams that a burst must reach completely. By an agent of its own: what another has
/// freed would not be seen to grow.
void MeasureMany(testing::ZooKeeperClient& publisher, const std::string& command) {
  constexpr unsigned instances = 10'000;
  constexpr std::size_t streaming = 256;
  const testing::HeldPort port;
  const std::string url = fmt::format("http://127.0.0.1:{}", port.Number());
  const Process agent(fmt::format("{} --service many --listen 127.0.0.1:{}", command, port.Number()));
  testing::Poll(testing::kLimit,
                [&] { return OutputOf("curl -s " + url + "/readyz").find("ready\"}") != std::string::npos; });
  const long empty = agent.ResidentKiB();
  for (unsigned i = 0; i < instances; ++i) publisher.Publish("many", Id(i), Data("h" + std::to_string(i)));
  testing::Poll(testing::kLimit, [&] {
    return OutputOf("curl -s " + url + "/metrics").find("} 10000\n") != std::string::npos;
  });
  const long loaded = agent.ResidentKiB();
  fmt::print("  memory: {:.2f} KiB an instance\n", static_cast<double>(loaded - empty) / instances);
  const double before = agent.ProcessorSeconds();
  testing::Poll(std::chrono::seconds(5), [] { return false; });
  fmt::print("  idle: {:.2f} % of a core\n", (agent.ProcessorSeconds() - before) * 100 / 5);
  Subscribers streams(port.Number(), streaming, Get("/v1/services/many/events"));
  static_cast<void>(streams.Await("event: synced", steady_clock::now()));
  fmt::print("  memory: {:.1f} KiB a stream\n",
             static_cast<double>(agent.ResidentKiB() - loaded) / streaming);
  MeasureBurst(publisher, streams);
}

void Run(const std::string& command) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  const TemporaryFolder folder;
  testing::ZooKeeperServer server;
  server.Start();
  testing::ZooKeeperClient publisher(server.ConnectString());
  const std::string config = folder.Path() / "halden.toml";
  std::ofstream(config) << fmt::format(
      "[data_centers]\neu = \"{}\"\n[serve]\nmax_connections = 2000\nmax_streams = 1500\n",
      server.ConnectString());
  const testing::HeldPort port;
  const std::string serve = fmt::format("{} serve --config {} --quiet", command, config);
  const Process agent(fmt::format("{} --service orders --listen 127.0.0.1:{}", serve, port.Number()));
  for (unsigned i = 0; i < 1000; ++i) publisher.Publish("orders", Id(i), Data("h" + std::to_string(i)));
  const std::string url = fmt::format("http://127.0.0.1:{}", port.Number());
  testing::Poll(testing::kLimit, [&] {
    return OutputOf("curl -s " + url + "/metrics").find("} 1000\n") != std::string::npos;
  });

  fmt::print("agent: a list of 1,000 instances\n");
  MeasureLists(folder, url);
  fmt::print("agent: a change is known to {} subscribers\n", kSubscribers);
  {
    Subscribers subscribers(port.Number(), kSubscribers, Get("/v1/services/orders/events"));
    static_cast<void>(subscribers.Await("event: synced", steady_clock::now()));
    const auto text = [](int round) { return fmt::format("\"round-{:06}\"", round); };
    MeasureChanges("agent", subscribers, text, [&](int round) {
      publisher.Publish("orders", Id(0), Data(fmt::format("round-{:06}", round)));
    });
  }
  MeasureEtcd(folder);
  fmt::print("agent: 10,000 instances\n");
  MeasureMany(publisher, serve);
}

}  // namespace
}  // namespace zr::halden::agent

int main(int argc, char** argv) {
  if (argc != 2) return fmt::print(stderr, "usage: {} HALDEN\n", argv[0]), 2;
  zr::halden::agent::Run(argv[1]);
  return 0;
}
