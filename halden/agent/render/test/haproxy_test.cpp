// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <thread>

#include "agent/bench/process.h"
#include "base/file_descriptor.h"
#include "halden/testing/held_port.h"
#include "halden/testing/poll.h"
#include "halden/testing/temporary_folder.h"
#include "halden/testing/zookeeper_client.h"
#include "halden/testing/zookeeper_server.h"

namespace zr::halden::agent {
namespace {

using namespace ::testing;
using details::FileDescriptor;

sockaddr_in Loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

/// An HTTP server that answers everything with its name, from its own thread.
class Server {
 public:
  explicit Server(std::string name) : m_name(std::move(name)), m_listener(socket(AF_INET, SOCK_STREAM, 0)) {
    auto address = Loopback(0);
    socklen_t size = sizeof address;
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(bind(m_listener.Get(), any, size), 0);
    EXPECT_EQ(listen(m_listener.Get(), SOMAXCONN), 0);
    EXPECT_EQ(getsockname(m_listener.Get(), any, &size), 0);
    m_port = ntohs(address.sin_port);
    m_thread = std::thread([this] { Serve(); });
  }
  ~Server() {
    m_ending = true;
    shutdown(m_listener.Get(), SHUT_RDWR);
    m_thread.join();
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  std::uint16_t Port() const { return m_port; }

 private:
  void Serve() {
    const std::string answer =
        "HTTP/1.0 200 OK\r\nContent-Length: " + std::to_string(m_name.size()) + "\r\n\r\n" + m_name;
    while (!m_ending) {
      const FileDescriptor client(accept(m_listener.Get(), nullptr, nullptr));
      std::array<char, 4096> request{};
      if (client && read(client.Get(), request.data(), request.size()) > 0) {
        send(client.Get(), answer.data(), answer.size(), MSG_NOSIGNAL);
      }
    }
  }

  const std::string m_name;
  const FileDescriptor m_listener;
  std::uint16_t m_port = 0;
  std::atomic<bool> m_ending{false};
  std::thread m_thread;
};

/// Who answers a request for `service`; what the proxy says where nobody does, and nothing when it is not there.
std::string Ask(std::uint16_t port, const std::string& service) {
  const FileDescriptor client(socket(AF_INET, SOCK_STREAM, 0));
  const auto address = Loopback(port);
  if (connect(client.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return "";
  const std::string request = "GET / HTTP/1.0\r\nHost: " + service + ".test\r\n\r\n";
  send(client.Get(), request.data(), request.size(), MSG_NOSIGNAL);
  std::string answer;
  std::array<char, 4096> part{};
  for (ssize_t length = 1; length > 0; answer.append(part.data(), static_cast<std::size_t>(length))) {
    length = read(client.Get(), part.data(), part.size());
    if (length < 0) return "";
  }
  const auto body = answer.find("\r\n\r\n");
  return answer.starts_with("HTTP/1.0 200") || answer.starts_with("HTTP/1.1 200") ? answer.substr(body + 4)
                                                                                  : answer;
}

class HaproxyTest : public Test {
 protected:
  HaproxyTest() {
    m_zookeeper.Start();
    std::ifstream stream(HALDEN_TEMPLATES "/haproxy.cfg.mustache");
    std::string text{std::istreambuf_iterator<char>(stream), {}};
    constexpr std::string_view port = ":8080";
    text.replace(text.find(port), port.size(), ":" + std::to_string(m_port.Number()));
    std::ofstream(File("template")) << text;
  }

  ~HaproxyTest() override {
    std::ifstream pids(File("pid"));
    for (pid_t pid = 0; pids >> pid;) kill(pid, SIGTERM);
  }

  std::string File(const std::string& name) const { return m_folder.Path() / name; }

  void Join(std::uint8_t number) {
    const auto& server = m_servers[number] = std::make_unique<Server>(std::to_string(number));
    zr::messaging::halden::ServiceInstanceData data;
    data.set_host("127.0.0.1");
    data.add_ports()->set_port(server->Port());
    Zookeeper().Publish("orders", Id(number), data);
  }

  void Leave(std::uint8_t number) {
    Zookeeper().Unpublish("orders", Id(number));
    m_servers.erase(number);
  }

  /// Whether those who answer come to be the servers, and none else.
  bool TrafficFollows() {
    std::set<std::string> names;
    for (const auto& [number, server] : m_servers) names.insert(std::to_string(number));
    return halden::testing::Poll(halden::testing::kLimit, [&] {
      std::set<std::string> answered;
      for (std::size_t i = 0; i < 2 * names.size() + 2; ++i) answered.insert(Ask(m_port.Number(), "orders"));
      return answered == names;
    });
  }

  static ServiceId Id(std::uint8_t number) {
    ServiceId id{};
    id.data[0] = number;
    return id;
  }
  halden::testing::ZooKeeperClient Zookeeper() const {
    return halden::testing::ZooKeeperClient(m_zookeeper.ConnectString());
  }

  const halden::testing::TemporaryFolder m_folder;
  const halden::testing::HeldPort m_port;
  halden::testing::ZooKeeperServer m_zookeeper;
  std::map<std::uint8_t, std::unique_ptr<Server>> m_servers;
};

TEST_F(HaproxyTest, TrafficFollowsInstancesThatComeAndGoAcrossReloads) {
  if (access("/usr/sbin/haproxy", X_OK) != 0)
    GTEST_SKIP() << "no HAProxy: scripts/setup.sh --tests installs it";
  Join(1);
  // A new one takes over from the old, and has done so when the command ends: a signal to reload gets lost where it
  // comes while the proxy still handles the one before.
  std::ofstream(File("halden.toml"))
      << "[data_centers]\neu = '" << m_zookeeper.ConnectString()
      << "'\n[serve]\nservices = ['orders']\nlisten = ''\n"
      << "socket = '" << File("socket") << "'\n[[serve.render]]\ntemplate = '" << File("template")
      << "'\ntarget = '" << File("haproxy.cfg")
      << "'\nwait = '0.001:0.01'\ncheck = 'haproxy -c -q -f $HALDEN_FILE'\nreload = 'haproxy -D -q -f "
      << "$HALDEN_FILE -p " << File("pid") << " $(test -e " << File("pid") << " && echo -sf $(cat "
      << File("pid") << "))'\n";
  const Process agent(HALDEN_COMMAND " serve --quiet --config " + File("halden.toml"));
  ASSERT_TRUE(TrafficFollows());
  Join(2);
  Join(3);
  EXPECT_TRUE(TrafficFollows()) << "two have come";
  const auto told = "curl -s --unix-socket '" + File("socket") +
                    "' http://localhost/metrics | grep -q 'result=\"written\"} [1-9]'";
  EXPECT_TRUE(halden::testing::Poll(halden::testing::kLimit, [&] { return system(told.c_str()) == 0; }));
  Leave(1);
  EXPECT_TRUE(TrafficFollows()) << "one has gone";
}

}  // namespace
}  // namespace zr::halden::agent
