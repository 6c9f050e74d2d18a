// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "client_log.h"

#include <chrono>
#include <cstddef>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "log_sources.h"

namespace zr::halden::details {

namespace {

using Clock = std::chrono::steady_clock;
using zr::logging::LogLevel;

constexpr std::size_t kMaxQueued = 1000;
constexpr std::chrono::seconds kQuietPeriod{10};

struct ClientLog {
  struct Place {
    Clock::time_point last;
    std::size_t leftOut = 0;
  };

  std::mutex mtx;                  // guards all below; nothing is called with it held
  std::vector<std::string> lines;  // at most kMaxQueued; what comes on top is dropped
  std::unordered_map<std::string, Place> places;
};

/// Never destroyed: the library's threads may outlive main().
ClientLog& TheLog() {
  static auto* const log = new ClientLog;
  return *log;
}

/// "date:pid(thread):ZOO_LEVEL@function@line: text", taken apart.
struct Line {
  LogLevel level = zr::logging::ZRLOG_DEBUG;
  std::string_view place;  // function@line
  std::string_view text;
};

Line TakeApart(std::string_view line) {
  constexpr std::string_view marker = ":ZOO_";
  const auto start = line.find(marker);
  const auto at = start == std::string_view::npos ? start : line.find('@', start);
  const auto end = at == std::string_view::npos ? at : line.find(": ", at);
  if (end == std::string_view::npos) return {zr::logging::ZRLOG_INFO, line, line};
  const auto name = line.substr(start + marker.size(), at - start - marker.size());
  const auto level = name == "ERROR"  ? zr::logging::ZRLOG_WARNING
                     : name == "WARN" ? zr::logging::ZRLOG_INFO
                                      : zr::logging::ZRLOG_DEBUG;
  return {level, line.substr(at + 1, end - at - 1), line.substr(end + 2)};
}

void Write(const Line& line, std::size_t leftOut) {
  const auto suffix = leftOut == 0 ? std::string() : ", left_out=" + std::to_string(leftOut);
  if (line.level == zr::logging::ZRLOG_WARNING) {
    ZRLOG(ZRLOG_WARNING, ClientLibraryLog()) << line.text << suffix;
  } else if (line.level == zr::logging::ZRLOG_INFO) {
    ZRLOG(ZRLOG_INFO, ClientLibraryLog()) << line.text << suffix;
  } else {
    ZRLOG(ZRLOG_DEBUG, ClientLibraryLog()) << line.text << suffix;
  }
}

}  // namespace

void QueueClientLogLine(const char* line) {
  if (TakeApart(line).level < zr::logging::GetMinimumLoggingLevel()) return;
  ClientLog& log = TheLog();
  const std::lock_guard lock(log.mtx);
  if (log.lines.size() < kMaxQueued) log.lines.emplace_back(line);
}

void DrainClientLog() {
  ClientLog& log = TheLog();
  std::vector<std::pair<std::string, std::size_t>> due;  // line, left out before it
  {
    const std::lock_guard lock(log.mtx);
    const auto now = Clock::now();
    for (auto& line : log.lines) {
      const auto [place, first] = log.places.try_emplace(std::string(TakeApart(line).place));
      if (!first && now - place->second.last < kQuietPeriod) {
        ++place->second.leftOut;
        continue;
      }
      place->second.last = now;
      due.emplace_back(std::move(line), std::exchange(place->second.leftOut, 0));
    }
    log.lines.clear();
  }
  for (const auto& [line, leftOut] : due) Write(TakeApart(line), leftOut);
}

}  // namespace zr::halden::details
