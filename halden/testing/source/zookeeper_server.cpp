// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "halden/testing/zookeeper_server.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <utility>

#include "child_process.h"
#include "halden/testing/poll.h"
#include "loopback.h"

namespace zr::halden::testing {

namespace {

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

/// Waits for the child, also where a signal's handler runs meanwhile; its status.
int AwaitChange(pid_t child, int options) {
  int status = 0;
  while (waitpid(child, &status, options) < 0 && errno == EINTR) {
  }
  return status;
}

/// Java itself would only say that it finds no main class.
void RequireFiles(const std::string& classPath) {
  std::istringstream entries(classPath);
  for (std::string entry; std::getline(entries, entry, ':');) {
    if (entry.ends_with('*') || std::filesystem::exists(entry)) continue;
    throw MissingSoftware(
        "there is no " + entry +
        ", which ZooKeeper's server needs: install libzookeeper-java and libslf4j-java, or say "
        "in ZooKeeperServerOptions::classPath where its jars are");
  }
}

}  // namespace

ZooKeeperServer::ZooKeeperServer(ZooKeeperServerOptions options)
    : ZooKeeperServer(std::move(options), 0, {}) {}

ZooKeeperServer::ZooKeeperServer(ZooKeeperServerOptions options, std::size_t id,
                                 std::vector<std::string> quorum)
    : m_options(std::move(options)), m_id(id), m_quorum(std::move(quorum)) {
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
  if (m_id != 0) {
    config << "initLimit=100\nsyncLimit=50\n";
    for (const auto& line : m_quorum) config << line << "\n";
    std::ofstream(data / "myid") << m_id << "\n";
  }
  if (!config.flush()) throw TestingError("cannot write the server's configuration");
}

std::vector<std::string> ZooKeeperServer::CommandLine() const {
  std::vector<std::string> words = {m_options.java,
                                    "-Xmx" + m_options.heap,
                                    "-XX:+UseSerialGC",
                                    "-XX:TieredStopAtLevel=1",
                                    "-Dzookeeper.forceSync=no",
                                    "-Dzookeeper.admin.enableServer=false",
                                    "-Dorg.slf4j.simpleLogger.defaultLogLevel=warn"};
  for (const auto& property : m_options.properties) words.push_back("-D" + property);
  const std::string main = m_id == 0 ? "ZooKeeperServerMain" : "quorum.QuorumPeerMain";
  words.insert(words.end(), {"-cp", m_options.classPath, "org.apache.zookeeper.server." + main,
                             m_folder.Path() / "zoo.cfg"});
  return words;
}

void ZooKeeperServer::Launch() {
  if (Running() && !ProcessEnded()) return;
  RequireFiles(m_options.classPath);
  m_pid = StartChild(CommandLine(), m_folder.Path() / "log",
                     "ZooKeeper's server needs Java: install default-jre-headless, or say in "
                     "ZooKeeperServerOptions::java where it is");
}

void ZooKeeperServer::Start() {
  Launch();
  Thaw();
  AwaitReady();
}

void ZooKeeperServer::Restart() {
  Stop();
  Start();
}

void ZooKeeperServer::AwaitReady() {
  bool ended = false;
  const bool done = Poll(kLimit, [&] { return (ended = ProcessEnded()) || !Mode().empty(); });
  if (ended || !done) {
    Kill();
    throw TestingError(std::string("the ZooKeeper server on port ") + std::to_string(Port()) +
                       (ended ? " ended at once" : " did not become ready") + "; its log:\n" + LogEnd());
  }
}

bool ZooKeeperServer::ProcessEnded() {
  if (m_pid > 0 && waitpid(m_pid, nullptr, WNOHANG) == 0) return false;
  m_pid = 0;
  m_frozen = false;
  return true;
}

void ZooKeeperServer::Stop() {
  if (!Running()) return;
  Thaw();
  kill(m_pid, SIGTERM);
  if (Poll(kLimit, [this] { return ProcessEnded(); })) return;
  Kill();
  throw TestingError("the ZooKeeper server did not stop; its log:\n" + LogEnd());
}

void ZooKeeperServer::Kill() {
  if (!Running()) return;
  kill(m_pid, SIGKILL);
  AwaitChange(m_pid, 0);
  m_pid = 0;
  m_frozen = false;
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

void ZooKeeperServer::Freeze() {
  if (!Running() || m_frozen) return;
  kill(m_pid, SIGSTOP);
  m_frozen = WIFSTOPPED(AwaitChange(m_pid, WUNTRACED));  // until it is frozen indeed
  if (!m_frozen) m_pid = 0;                              // it had ended
}

void ZooKeeperServer::Thaw() {
  if (!m_frozen) return;
  kill(m_pid, SIGCONT);
  m_frozen = false;
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

}  // namespace zr::halden::testing
