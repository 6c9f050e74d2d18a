// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "child_process.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <condition_variable>
#include <deque>
#include <future>
#include <mutex>
#include <thread>

#include "loopback.h"

namespace zr::halden::testing {

namespace {

/// Linux kills a child with the thread that made it: so one thread makes all, and runs as long as the program does.
class Launcher {
 public:
  /// Never destroyed, since its thread never ends.
  static Launcher& Instance() {
    static auto* const launcher = new Launcher;
    return *launcher;
  }

  pid_t Run(std::packaged_task<pid_t()> task) {
    auto result = task.get_future();
    {
      const std::lock_guard lock(m_mtx);
      m_tasks.push_back(std::move(task));
    }
    m_changed.notify_one();
    return result.get();
  }

 private:
  Launcher() {
    std::thread([this] {
      BlockSignals();
      while (true) Next()();
    }).detach();
  }

  std::packaged_task<pid_t()> Next() {
    std::unique_lock lock(m_mtx);
    m_changed.wait(lock, [this] { return !m_tasks.empty(); });
    auto task = std::move(m_tasks.front());
    m_tasks.pop_front();
    return task;
  }

  std::mutex m_mtx;
  std::condition_variable m_changed;
  std::deque<std::packaged_task<pid_t()>> m_tasks;  // guarded by m_mtx
};

/// Becomes the program, between fork and exec: only calls that are safe in a signal handler. What goes wrong is
/// written to `report`, which the exec closes.
[[noreturn]] void Become(char* const* arguments, const char* logPath, pid_t parent, int report) {
  constexpr int kept = STDERR_FILENO + 1;
  constexpr int failure = 127;
  const int log = open(logPath, O_WRONLY | O_CREAT | O_APPEND, 0600);
  dup2(log, STDOUT_FILENO);
  dup2(log, STDERR_FILENO);
  if (report == kept ? fcntl(kept, F_SETFD, FD_CLOEXEC) < 0 : dup3(report, kept, O_CLOEXEC) < 0)
    _exit(failure);
  // Sockets that are not close-on-exec, such as the client library's: inherited, they would keep connections open.
  close_range(kept + 1, ~0U, 0);
  sigset_t none;
  sigemptyset(&none);
  pthread_sigmask(SIG_SETMASK, &none, nullptr);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() == parent) execvp(arguments[0], arguments);
  const int error = errno;
  const ssize_t ignored = write(kept, &error, sizeof error);
  _exit(ignored < 0 ? failure : failure - 1);
}

}  // namespace

pid_t StartChild(std::vector<std::string> words, const std::string& log, const std::string& advice) {
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (auto& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  std::array<int, 2> report{};
  if (pipe2(report.data(), O_CLOEXEC) != 0) Fail("no pipe");
  const pid_t child = Launcher::Instance().Run(std::packaged_task<pid_t()>([&, parent = getpid()] {
    const pid_t made = fork();
    if (made == 0) Become(arguments.data(), log.c_str(), parent, report[1]);
    return made;
  }));
  close(report[1]);
  int error = child < 0 ? EAGAIN : 0;
  const ssize_t got = child < 0 ? 0 : read(report[0], &error, sizeof error);
  close(report[0]);
  if (child > 0 && got <= 0) return child;
  if (child > 0) waitpid(child, nullptr, 0);
  const auto why = "cannot run \"" + words[0] + "\": " + std::generic_category().message(error);
  if (error == ENOENT) throw MissingSoftware(why + "; " + advice);
  throw TestingError(why);
}

}  // namespace zr::halden::testing
