// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "client/client_adaptor.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <array>
#include <chrono>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "base/log_sources.h"
#include "base/task_thread.h"
#include "zrstl/thread_safety.h"

// Of the library's, not in its headers: sends what is queued, until all is sent or `timeout` (milliseconds) is
// over; 0 does not wait at all.
extern "C" int flush_send_queue(zhandle_t* handle, int timeout);

namespace zr::halden::details {

namespace {

using zr::logging::LogLevel;

/// What the library may do with a request to end the session, which it makes in every close while connected.
enum class Ending : std::uint8_t { Withheld, Asked, Sent };

thread_local Ending t_ending = Ending::Withheld;
thread_local std::int32_t t_lastXid = 0;

/// Lets a line of one place in the library through now and then.
class LineLimit {
 public:
  /// How many were left out before this one; nothing when it is to be left out itself.
  std::optional<std::size_t> Pass(std::string&& place) {
    constexpr std::chrono::seconds quietPeriod{10};
    const auto now = Clock::now();
    const zr::MutexLock lock(m_mtx);
    const auto [known, first] = m_places.try_emplace(std::move(place));
    if (!first && now - known->second.last < quietPeriod) {
      ++known->second.leftOut;
      return std::nullopt;
    }
    known->second.last = now;
    return std::exchange(known->second.leftOut, 0);
  }

 private:
  struct Place {
    Clock::time_point last;
    std::size_t leftOut = 0;
  };

  zr::Mutex m_mtx;
  std::unordered_map<std::string, Place> m_places
      ZR_GUARDED_BY(m_mtx);  // as many as the library has log lines
};

/// Never destroyed: connections' threads may outlive main().
LineLimit& TheLineLimit() {
  static auto* const limit = new LineLimit;
  return *limit;
}

LogLevel LevelOf(ZooLogLevel level) {
  return level == ZOO_LOG_LEVEL_ERROR  ? zr::logging::ZRLOG_WARNING
         : level == ZOO_LOG_LEVEL_WARN ? zr::logging::ZRLOG_INFO
                                       : zr::logging::ZRLOG_DEBUG;
}

void Log(LogLevel level, std::string place, std::string_view text) {
  const auto leftOut = TheLineLimit().Pass(std::move(place));
  if (!leftOut) return;
  const auto suffix = *leftOut == 0 ? std::string() : ", left_out=" + std::to_string(*leftOut);
  if (level == zr::logging::ZRLOG_WARNING) {
    ZRLOG(ZRLOG_WARNING, ClientLibraryLog()) << text << suffix;
  } else if (level == zr::logging::ZRLOG_INFO) {
    ZRLOG(ZRLOG_INFO, ClientLibraryLog()) << text << suffix;
  } else {
    ZRLOG(ZRLOG_DEBUG, ClientLibraryLog()) << text << suffix;
  }
}

}  // namespace

void CloseAndKeepSession(zhandle_t* handle) {
  t_ending = Ending::Withheld;
  zookeeper_close(handle);
}

std::unique_ptr<Farewell> CloseAndEndSession(zhandle_t* handle, int socket) {
  FileDescriptor kept(fcntl(socket, F_DUPFD_CLOEXEC, 0));
  t_ending = Ending::Asked;
  zookeeper_close(handle);
  const bool sent = std::exchange(t_ending, Ending::Withheld) == Ending::Sent;
  // The last request that the library makes of a handle is this one.
  return sent && kept ? std::make_unique<Farewell>(std::move(kept), t_lastXid) : nullptr;
}

void TakeForBroken(zhandle_t* /*handle*/, int socket) {
  shutdown(socket, SHUT_RDWR);
}

}  // namespace zr::halden::details

extern "C" {

int adaptor_send_queue(zhandle_t* handle, int timeout) {
  using zr::halden::details::Ending;
  using zr::halden::details::t_ending;
  if (timeout == 0) return ZOK;  // left to the loop
  // Only a close asks to wait. A millisecond: to be told whether all has left, the request to end included.
  if (t_ending == Ending::Asked && flush_send_queue(handle, 1) == ZOK) t_ending = Ending::Sent;
  return ZCLOSING;  // an error, so that the library does not wait for the answer
}

std::int32_t get_xid() {
  auto& xid = zr::halden::details::t_lastXid;
  constexpr std::int32_t last = 0x7FFFFFFE;  // negative ones mean something
  if (xid <= 0 || xid > last) xid = static_cast<std::int32_t>(std::time(nullptr) & 0x3FFFFFFF);
  return ++xid;
}

void log_message(log_callback_fn /*callback*/, ZooLogLevel level, int line, const char* function,
                 const char* format, ...) {
  using namespace zr::halden::details;
  if (LevelOf(level) < zr::logging::GetMinimumLoggingLevel()) return;
  std::array<char, 1024> text{};
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  TaskThread::RunGuarded(
      [&] { Log(LevelOf(level), std::string(function) + '@' + std::to_string(line), text.data()); });
}

}  // extern "C"
