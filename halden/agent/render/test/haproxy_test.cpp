// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <thread>

#include "agent/render/file_renderer.h"
#include "base/file_descriptor.h"
#include "halden/testing/held_port.h"
#include "halden/testing/temporary_folder.h"
#include "support/await.h"

namespace zr::halden::agent {
namespace {

using namespace ::testing;
using namespace std::chrono_literals;
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
    std::ifstream stream(HALDEN_TEMPLATES "/haproxy.cfg.mustache");
    std::string text{std::istreambuf_iterator<char>(stream), {}};
    const auto port = text.find(":8080");
    text.replace(port, 5, ":" + std::to_string(m_port.Number()));
    m_options.source = m_folder.Path() / "template";
    std::ofstream(m_options.source) << text;
    m_options.target = m_folder.Path() / "haproxy.cfg";
    m_options.check = "haproxy -c -q -f \"$HALDEN_FILE\"";
    m_options.wait = {1ms, 10ms};
  }
  ~HaproxyTest() override {
    if (m_haproxy <= 0) return;
    kill(m_haproxy, SIGTERM);
    waitpid(m_haproxy, nullptr, 0);
  }

  void StartProxy() {
    m_haproxy = fork();
    if (m_haproxy != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    execlp("haproxy", "haproxy", "-W", "-q", "-f", m_options.target.c_str(), nullptr);
    _exit(127);
  }

  std::string List() const {
    nlohmann::json instances = nlohmann::json::array();
    for (const auto& [name, server] : m_servers) {
      instances.push_back({{"id", name},
                           {"host", "127.0.0.1"},
                           {"ports", {{{"name", ""}, {"port", server->Port()}}}},
                           {"status", "ok"},
                           {"weight", 100}});
    }
    return nlohmann::json{{"service", "orders"}, {"instances", instances}}.dump();
  }

  /// Whether those who answer come to be the servers, and none else.
  bool TrafficFollows() {
    std::set<std::string> names;
    for (const auto& [name, server] : m_servers) names.insert(name);
    return halden::testing::Poll(halden::testing::kLimit, [&] {
      std::set<std::string> answered;
      for (std::size_t i = 0; i < 2 * names.size() + 2; ++i) answered.insert(Ask(m_port.Number(), "orders"));
      return answered == names;
    });
  }

  const halden::testing::TemporaryFolder m_folder;
  const halden::testing::HeldPort m_port;
  RenderOptions m_options;
  std::map<std::string, std::unique_ptr<Server>> m_servers;
  pid_t m_haproxy = 0;
};

TEST_F(HaproxyTest, TrafficFollowsInstancesThatComeAndGoAcrossReloads) {
  m_servers["a"] = std::make_unique<Server>("a");
  boost::asio::io_context loop;
  const auto work = boost::asio::make_work_guard(loop);
  // The master of the proxy's processes, of which there is none for the first file.
  m_options.reload = "test ! -e '" + (m_folder.Path() / "pid").string() + "' || kill -USR2 $(cat '" +
                     (m_folder.Path() / "pid").string() + "')";
  FileRenderer renderer(loop.get_executor(), m_options, [&] { return std::vector{List()}; });
  const auto change = [&] {
    const auto written = renderer.Counters().written;
    const auto end = std::chrono::steady_clock::now() + halden::testing::kLimit;
    renderer.Changed();
    while (renderer.Counters().written == written && loop.run_one_until(end) > 0) {
    }
    EXPECT_EQ(renderer.Counters().lastFailure, "");
  };
  change();
  StartProxy();
  ASSERT_TRUE(TrafficFollows());
  std::ofstream(m_folder.Path() / "pid") << m_haproxy;
  for (const auto* name : {"b", "c"}) m_servers[name] = std::make_unique<Server>(name);
  change();
  EXPECT_TRUE(TrafficFollows()) << "two have come";
  m_servers.erase("a");
  change();
  EXPECT_TRUE(TrafficFollows()) << "one has gone";
  EXPECT_EQ(renderer.Counters().written, 3U);
}

}  // namespace
}  // namespace zr::halden::agent
