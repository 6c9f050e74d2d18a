// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "line_output.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <system_error>

namespace zr::logging::details {

namespace {

std::atomic<unsigned> g_reopenCalls{0};
static_assert(std::atomic<unsigned>::is_always_lock_free, "or a signal handler could not touch it");

/// Keeps the signals that a failed write sends to its own thread from being delivered: a reader of the log
/// that ends, or a limit on file sizes, would end the process.
class WriteSignalsBlocked {
 public:
  WriteSignalsBlocked() {
    sigset_t pending;
    sigpending(&pending);
    sigemptyset(&m_ours);
    for (const int number : {SIGPIPE, SIGXFSZ}) {
      // One that waits already is the application's, which has it blocked.
      if (sigismember(&pending, number) == 0) sigaddset(&m_ours, number);
    }
    pthread_sigmask(SIG_BLOCK, &m_ours, &m_previous);
  }
  ~WriteSignalsBlocked() {
    const timespec now{};
    if (m_failed) sigtimedwait(&m_ours, nullptr, &now);
    pthread_sigmask(SIG_SETMASK, &m_previous, nullptr);
  }
  WriteSignalsBlocked(const WriteSignalsBlocked&) = delete;
  WriteSignalsBlocked& operator=(const WriteSignalsBlocked&) = delete;

  void Failed() { m_failed = true; }

 private:
  sigset_t m_ours{};
  sigset_t m_previous{};
  bool m_failed = false;
};

bool AwaitWritable(int descriptor) {
  constexpr int patienceMs = 100;
  pollfd waited{descriptor, POLLOUT, 0};
  return poll(&waited, 1, patienceMs) > 0;
}

/// Returns how much was written; less than all of it leaves the reason in `error`.
std::size_t WriteAll(int descriptor, std::string_view text, int& error) {
  std::size_t done = 0;
  while (done < text.size()) {
    const auto count = write(descriptor, text.data() + done, text.size() - done);
    if (count > 0) {
      done += static_cast<std::size_t>(count);
      continue;
    }
    error = count == 0 ? EIO : errno;
    if (error == EINTR || (error == EAGAIN && AwaitWritable(descriptor))) continue;
    break;
  }
  return done;
}

/// Returns the error, 0 for none.
int WriteLine(int descriptor, std::string_view line, bool& torn) {
  WriteSignalsBlocked signals;
  int error = 0;
  if (torn && WriteAll(descriptor, "\n", error) == 1) torn = false;
  const std::size_t done = torn ? 0 : WriteAll(descriptor, line, error);
  if (done == line.size()) return 0;
  torn = torn || done > 0;
  signals.Failed();
  return error;
}

[[noreturn]] void Throw(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

}  // namespace

void DescriptorOutput::Write(std::string_view line) {
  if (const int error = WriteLine(m_descriptor, line, m_torn); error != 0) Throw(error, "log line");
}

FileOutput::FileOutput(const FileOptions& options) : m_options(options) {
  Open();
}

void FileOutput::ReopenAll() noexcept {
  g_reopenCalls.fetch_add(1);
}

void FileOutput::Write(std::string_view line) {
  if (m_descriptor < 0 || m_openedForCall != g_reopenCalls.load()) Open();
  const bool isFull = m_options.maxBytes != 0 && m_bytes != 0 && m_bytes + line.size() > m_options.maxBytes;
  if (isFull && m_isRegular) {
    const bool moved = MoveAway();
    m_bytes = 0;
    if (moved) Open();
  }
  if (const int error = WriteLine(m_descriptor, line, m_torn); error != 0) Throw(error, m_options.path);
  m_bytes += line.size();
}

void FileOutput::Open() {
  const unsigned call = g_reopenCalls.load();
  Close();
  // Non-blocking for pipes with a name: one that nobody reads must not stop the process.
  constexpr int flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
  constexpr mode_t mode = 0644;
  m_descriptor = open(m_options.path.c_str(), flags, mode);
  if (m_descriptor < 0) Throw(errno, m_options.path);
  m_openedForCall = call;
  m_torn = false;
  struct stat status {};
  m_isRegular = fstat(m_descriptor, &status) == 0 && S_ISREG(status.st_mode);
  m_bytes = m_isRegular ? static_cast<std::uint64_t>(status.st_size) : 0;
}

void FileOutput::Close() {
  if (m_descriptor >= 0) close(m_descriptor);
  m_descriptor = -1;
}

bool FileOutput::MoveAway() {
  if (m_options.keptFiles == 0) return unlink(m_options.path.c_str()) == 0;
  for (unsigned number = m_options.keptFiles; number > 1; --number) {
    const int result = std::rename(OldPath(number - 1).c_str(), OldPath(number).c_str());
    if (result != 0 && errno != ENOENT) return false;  // or the next rename would replace it
  }
  return std::rename(m_options.path.c_str(), OldPath(1).c_str()) == 0;
}

}  // namespace zr::logging::details
