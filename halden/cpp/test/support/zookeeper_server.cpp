// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "support/zookeeper_server.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include "support/await.h"
#include "support/loopback.h"

namespace zr::halden::test {

namespace {

constexpr std::string_view kClassPath = "/usr/share/java/zookeeper.jar:/usr/share/java/slf4j-simple.jar";

/// Asks the server at `port` how it does. One that still loads may leave the question unanswered for ever, so
/// the answer gets a limit.
std::string Ask(std::uint16_t port) {
  constexpr int limitMs = 250;
  constexpr std::string_view question = "srvr";
  std::string answer;
  const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (probe < 0) return answer;
  const sockaddr_in address = Loopback(port);
  if (connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
      send(probe, question.data(), question.size(), MSG_NOSIGNAL) > 0) {
    std::array<char, 1024> buffer{};
    pollfd readable{probe, POLLIN, 0};
    ssize_t got = 0;
    while (poll(&readable, 1, limitMs) > 0 && (got = recv(probe, buffer.data(), buffer.size(), 0)) > 0) {
      answer.append(buffer.data(), static_cast<std::size_t>(got));
    }
  }
  close(probe);
  return answer;
}

/// Becomes the server, between fork and exec: only calls that are safe in a signal handler.
[[noreturn]] void BecomeServer(char* const* arguments, const char* logPath, pid_t parent) {
  constexpr int failure = 127;
  const int log = open(logPath, O_WRONLY | O_CREAT | O_APPEND, 0600);
  dup2(log, STDOUT_FILENO);
  dup2(log, STDERR_FILENO);
  // The client library's sockets are not close-on-exec: inherited, they would keep connections open.
  close_range(STDERR_FILENO + 1, ~0U, 0);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() == parent) execvp(arguments[0], arguments);
  _exit(failure);
}

}  // namespace

TemporaryFolder::TemporaryFolder() {
  std::string name = std::filesystem::temp_directory_path() / "halden-test-XXXXXX";
  if (mkdtemp(name.data()) == nullptr) Fail("mkdtemp");
  m_path = name;
}

TemporaryFolder::~TemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(m_path, ignored);
}

/// Binds with SO_REUSEADDR, which the server sets too: both may then have the port, as only one listens.
HeldPort::HeldPort() : m_holder(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  if (m_holder < 0) Fail("socket");
  const int on = 1;
  setsockopt(m_holder, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  m_number = BindToFreePort(m_holder);
}

HeldPort::~HeldPort() {
  close(m_holder);
}

ZooKeeperServer::ZooKeeperServer(ZooKeeperServerOptions options) : m_options(std::move(options)) {
  WriteConfig();
}

ZooKeeperServer::~ZooKeeperServer() {
  Kill();
}

void ZooKeeperServer::WriteConfig() const {
  const auto data = m_folder.Path() / "data";
  std::filesystem::create_directory(data);
  std::ofstream config(m_folder.Path() / "zoo.cfg");
  config << "tickTime=" << m_options.tickTime.count() << "\ndataDir=" << data.string()
         << "\nclientPort=" << Port() << "\nclientPortAddress=127.0.0.1\nmaxClientCnxns=0\n";
  const auto longest = m_options.maxSessionTimeout.count();
  if (longest > 0) config << "maxSessionTimeout=" << longest << "\n";
  if (m_options.id != 0) {
    config << "initLimit=100\nsyncLimit=50\n";
    for (const auto& line : m_options.quorum) config << line << "\n";
    std::ofstream(data / "myid") << m_options.id << "\n";
  }
  if (!config.flush()) throw std::runtime_error("cannot write the server's configuration");
}

void ZooKeeperServer::Launch() {
  if (Running()) return;
  std::vector<std::string> words = {"java",
                                    "-Xmx" + m_options.heap,
                                    "-XX:+UseSerialGC",
                                    "-XX:TieredStopAtLevel=1",
                                    "-Dzookeeper.forceSync=no",
                                    "-Dzookeeper.admin.enableServer=false",
                                    "-Dorg.slf4j.simpleLogger.defaultLogLevel=warn"};
  for (const auto& property : m_options.properties) words.push_back("-D" + property);
  const std::string main = m_options.id == 0 ? "ZooKeeperServerMain" : "quorum.QuorumPeerMain";
  words.insert(words.end(), {"-cp", std::string(kClassPath), "org.apache.zookeeper.server." + main,
                             m_folder.Path() / "zoo.cfg"});
  std::vector<char*> arguments;
  for (auto& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  const std::string log = m_folder.Path() / "log";
  const pid_t parent = getpid();
  m_pid = fork();
  if (m_pid == 0) BecomeServer(arguments.data(), log.c_str(), parent);
  if (m_pid < 0) {
    m_pid = 0;
    Fail("fork");
  }
}

void ZooKeeperServer::Start() {
  Launch();
  Resume();
  AwaitReady();
}

void ZooKeeperServer::AwaitReady() {
  bool ended = false;
  const bool done = Poll(kLimit, [&] { return (ended = ProcessEnded()) || !Mode().empty(); });
  if (ended || !done) {
    Kill();
    throw std::runtime_error(std::string("the ZooKeeper server on port ") + std::to_string(Port()) +
                             (ended ? " ended at once" : " did not become ready") + "; its log:\n" +
                             LogEnd());
  }
}

bool ZooKeeperServer::ProcessEnded() {
  if (m_pid > 0 && waitpid(m_pid, nullptr, WNOHANG) != m_pid) return false;
  m_pid = 0;
  m_paused = false;
  return true;
}

void ZooKeeperServer::Stop() {
  if (!Running()) return;
  Resume();
  kill(m_pid, SIGTERM);
  if (Poll(kLimit, [this] { return ProcessEnded(); })) return;
  Kill();
  throw std::runtime_error("the ZooKeeper server did not stop; its log:\n" + LogEnd());
}

void ZooKeeperServer::Kill() {
  if (!Running()) return;
  kill(m_pid, SIGKILL);
  waitpid(m_pid, nullptr, 0);
  m_pid = 0;
  m_paused = false;
}

void ZooKeeperServer::Wipe() {
  Kill();
  std::filesystem::remove_all(m_folder.Path() / "data");
  WriteConfig();
}

std::string ZooKeeperServer::Mode() const {
  return Says("Mode: ");
}

std::uint64_t ZooKeeperServer::Received() const {
  const auto count = Says("Received: ");
  return count.empty() ? 0 : std::stoull(count);
}

std::string ZooKeeperServer::Says(std::string_view label) const {
  const std::string answer = Ask(Port());
  const auto found = answer.find(label);
  if (found == std::string::npos) return {};
  const auto begin = found + label.size();
  return answer.substr(begin, answer.find('\n', begin) - begin);
}

void ZooKeeperServer::Pause() {
  if (!Running() || m_paused) return;
  kill(m_pid, SIGSTOP);
  int status = 0;
  waitpid(m_pid, &status, WUNTRACED);  // until it is frozen indeed
  m_paused = WIFSTOPPED(status);
  if (!m_paused) m_pid = 0;  // it had ended
}

void ZooKeeperServer::Resume() {
  if (!m_paused) return;
  kill(m_pid, SIGCONT);
  m_paused = false;
}

std::string ZooKeeperServer::ConnectString(const std::string& chroot) const {
  return "127.0.0.1:" + std::to_string(Port()) + chroot;
}

std::string ZooKeeperServer::LogEnd() const {
  constexpr std::size_t limit = 4000;
  std::ifstream file(m_folder.Path() / "log");
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  return text.substr(text.size() - std::min(text.size(), limit));
}

}  // namespace zr::halden::test
