// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "agent/render/command.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string_view>
#include <system_error>
#include <utility>

#include "base/file_descriptor.h"

namespace zr::halden::agent {

namespace {

using details::FileDescriptor;
using SteadyClock = std::chrono::steady_clock;

std::string ErrorText(int error) {
  return std::generic_category().message(error);
}

/// What a child begins with, in the form that posix_spawn wants.
class SpawnPlan {
 public:
  explicit SpawnPlan(int output) {
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_init(&m_attributes);
    posix_spawnattr_setsigmask(&m_attributes, &none);
    posix_spawnattr_setsigdefault(&m_attributes, &all);
    posix_spawnattr_setpgroup(&m_attributes, 0);
    posix_spawnattr_setflags(&m_attributes,
                             POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    posix_spawn_file_actions_init(&m_actions);
    posix_spawn_file_actions_addopen(&m_actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&m_actions, output, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&m_actions, output, STDERR_FILENO);
    posix_spawn_file_actions_addclosefrom_np(&m_actions, STDERR_FILENO + 1);
  }
  ~SpawnPlan() {
    posix_spawn_file_actions_destroy(&m_actions);
    posix_spawnattr_destroy(&m_attributes);
  }
  SpawnPlan(const SpawnPlan&) = delete;
  SpawnPlan& operator=(const SpawnPlan&) = delete;

  /// Returns an error's number, or 0.
  int Run(pid_t& child, std::vector<std::string> words, std::vector<std::string> environment) const {
    const auto pointers = [](std::vector<std::string>& texts) {
      std::vector<char*> result;
      result.reserve(texts.size() + 1);
      for (auto& text : texts) result.push_back(text.data());
      result.push_back(nullptr);
      return result;
    };
    return posix_spawn(&child, words.front().c_str(), &m_actions, &m_attributes, pointers(words).data(),
                       pointers(environment).data());
  }

 private:
  posix_spawnattr_t m_attributes{};
  posix_spawn_file_actions_t m_actions{};
};

/// Shells differ in which of two variables of a name they take: so there is one.
std::vector<std::string> EnvironmentWith(const std::vector<std::string>& variables) {
  std::vector<std::string> result = variables;
  const auto isSet = [&](std::string_view entry) {
    return std::any_of(variables.begin(), variables.end(), [&](std::string_view own) {
      return entry.starts_with(own.substr(0, own.find('=') + 1));
    });
  };
  for (char** entry = environ; *entry != nullptr; ++entry) {
    if (!isSet(*entry)) result.emplace_back(*entry);
  }
  return result;
}

/// A child and what it prints.
class RunningCommand {
 public:
  RunningCommand(pid_t child, FileDescriptor output)
      : m_child(child),
        m_ended(static_cast<int>(syscall(SYS_pidfd_open, child, 0))),
        m_output(std::move(output)) {}
  ~RunningCommand() {
    if (m_child > 0) KillAndWait();
  }
  RunningCommand(const RunningCommand&) = delete;
  RunningCommand& operator=(const RunningCommand&) = delete;

  /// As RunCommand.
  std::string Await(SteadyClock::time_point end, int stop) {
    if (!m_ended) return "cannot wait for it: " + ErrorText(errno);
    bool hasOutput = true;
    while (true) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - SteadyClock::now());
      std::array<pollfd, 3> polled{pollfd{m_ended.Get(), POLLIN, 0}, pollfd{stop, POLLIN, 0},
                                   pollfd{hasOutput ? m_output.Get() : -1, POLLIN, 0}};
      const int ready = poll(polled.data(), polled.size(), static_cast<int>(std::max<long>(left.count(), 0)));
      // Also where there is always more to read.
      if (ready == 0 || left.count() <= 0) return "killed: it took too long" + Printed();
      if (ready < 0 && errno != EINTR) return "cannot wait for it: " + ErrorText(errno);
      if (ready < 0) continue;
      if (polled[0].revents != 0) return Result();
      if (polled[1].revents != 0) return "killed: the agent ends";
      if (polled[2].revents != 0) hasOutput = ReadOutput();
    }
  }

 private:
  static constexpr std::size_t kMostText = 2048;  // the first words say what is wrong

  /// False at its end, or for now.
  bool ReadOutput() {
    std::array<char, 4096> part{};
    const ssize_t length = read(m_output.Get(), part.data(), part.size());
    if (length <= 0) return false;
    m_text.append(part.data(), std::min(static_cast<std::size_t>(length), kMostText - m_text.size()));
    return true;
  }

  std::string Printed() {
    while (m_text.size() < kMostText && ReadOutput()) {
    }
    while (!m_text.empty() && m_text.back() == '\n') m_text.pop_back();
    return m_text.empty() ? "" : ": " + m_text;
  }

  std::string Result() {
    int status = 0;
    waitpid(std::exchange(m_child, 0), &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return "";
    const auto how = WIFEXITED(status) ? "ended with " + std::to_string(WEXITSTATUS(status))
                                       : "ended by signal " + std::to_string(WTERMSIG(status));
    return how + Printed();
  }

  void KillAndWait() const {
    kill(-m_child, SIGKILL);
    waitpid(m_child, nullptr, 0);
  }

  pid_t m_child;
  const FileDescriptor m_ended;
  const FileDescriptor m_output;  // does not block
  std::string m_text;
};

}  // namespace

std::string RunCommand(const std::string& line, const std::vector<std::string>& variables,
                       std::chrono::milliseconds limit, int stop) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return "no pipe: " + ErrorText(errno);
  FileDescriptor output(ends[0]);
  fcntl(output.Get(), F_SETFL, O_NONBLOCK);
  pid_t child = 0;
  int error = 0;
  {
    const FileDescriptor input(ends[1]);
    error = SpawnPlan(input.Get()).Run(child, {"/bin/sh", "-c", line}, EnvironmentWith(variables));
  }
  if (error != 0) return "cannot be started: " + ErrorText(error);
  return RunningCommand(child, std::move(output)).Await(SteadyClock::now() + limit, stop);
}

}  // namespace zr::halden::agent
