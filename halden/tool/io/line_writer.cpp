// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "io/line_writer.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <system_error>

#include "io/failure.h"

namespace zr::halden::tool {

namespace {

constexpr short kGone = POLLERR | POLLHUP | POLLNVAL;

}  // namespace

void LineWriter::Write(std::string_view text) {
  const std::lock_guard lock(m_mtx);
  while (!text.empty() && !m_ended && AwaitWritable()) {
    // A pipe that poll() calls writable takes this much without blocking.
    const ssize_t written = write(m_output, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
    if (written >= 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno != EINTR && errno != EAGAIN) {
      if (errno != EPIPE) m_error = errno;
      m_ended = true;
    }
  }
}

bool LineWriter::AwaitWritable() {
  std::array<pollfd, 2> events{{{m_output, POLLOUT, 0}, {m_stop, POLLIN, 0}}};
  while (poll(events.data(), events.size(), -1) < 0 && errno == EINTR) {
  }
  if (events[0].revents != 0) return true;  // also when write() is to say what is wrong
  m_ended = true;
  return false;
}

bool LineWriter::AwaitEnd(std::chrono::milliseconds limit, int other, int another) {
  if (m_ended) return true;
  std::array<pollfd, 4> events{
      {{m_output, 0, 0}, {m_stop, POLLIN, 0}, {other, POLLIN, 0}, {another, POLLIN, 0}}};
  if (poll(events.data(), events.size(), static_cast<int>(limit.count())) < 0) return false;
  if ((events[0].revents & kGone) != 0) m_ended = true;
  return m_ended || events[1].revents != 0;
}

void LineWriter::ThrowIfFailed() const {
  const int error = m_error;
  if (error != 0) throw Failure(kFailed, "cannot write: " + std::generic_category().message(error));
}

}  // namespace zr::halden::tool
