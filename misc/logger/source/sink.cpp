// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "logger/sink.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/stdout_color_sinks.h>

#include <array>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

namespace zr::logging {

std::atomic<LogLevel> g_minLogLevel{ZRLOG_WARNING};
bool g_toggleableDebugControl = false;
const int g_defaultConfigFlags = 95;

namespace {

using HandlerMap = std::map<zr::String, Handler>;

/// The handlers, as an immutable map that a statement takes a reference to: handlers run with no lock held,
/// so one may change the handlers itself.
struct Sink {
  std::mutex mtx;
  std::shared_ptr<const HandlerMap> handlers;  // guarded by mtx
  std::atomic<std::uint64_t> lostLines{0};

  Sink() : handlers(std::make_shared<HandlerMap>(HandlerMap{{"stderr", MakeStderrHandler()}})) {}

  std::shared_ptr<const HandlerMap> Handlers() {
    const std::lock_guard lock(mtx);
    return handlers;
  }
};

/// Never destroyed: threads that outlive main() may still log.
Sink& TheSink() {
  static auto* const sink = new Sink;
  return *sink;
}

struct LevelName {
  LogLevel level;
  std::string_view name;
};

constexpr std::array<LevelName, 9> kLevelNames{{{ZRLOG_DEBUG, "debug"},
                                                {ZRLOG_INFO, "info"},
                                                {ZRLOG_INFO_LOCAL, "info_local"},
                                                {ZRLOG_INFO_SEARCH, "info_search"},
                                                {ZRLOG_WARNING, "warning"},
                                                {ZRLOG_ERROR, "error"},
                                                {ZRLOG_ALERT, "alert"},
                                                {ZRLOG_CRITICAL, "critical"},
                                                {ZRLOG_WALL, "off"}}};

spdlog::level::level_enum ToSpdlog(LogLevel level) {
  if (level >= ZRLOG_CRITICAL) return spdlog::level::critical;
  if (level >= ZRLOG_ERROR) return spdlog::level::err;
  if (level >= ZRLOG_WARNING) return spdlog::level::warn;
  return level >= ZRLOG_INFO ? spdlog::level::info : spdlog::level::debug;
}

LogRecord MakeRecord(LogLevel level, unsigned int id, DecodeType decodeType, const ConstSourcePtr& source,
                     const char* file, int line, const zr::String& msg) {
  timespec now{};
  timespec_get(&now, TIME_UTC);
  const auto thread = std::hash<std::thread::id>()(std::this_thread::get_id());
  return LogRecord{level, id, decodeType, source, file, line, msg, now, thread, {}};
}

void Replace(const zr::String& name, Handler* handler) {
  Sink& sink = TheSink();
  std::shared_ptr<const HandlerMap> old;  // released after the lock: a handler's destructor is foreign code
  const std::lock_guard lock(sink.mtx);
  auto changed = std::make_shared<HandlerMap>(*sink.handlers);
  changed->erase(name);
  if (handler != nullptr) changed->emplace(name, std::move(*handler));
  old = std::exchange(sink.handlers, std::move(changed));
}

}  // namespace

void SetMinimumLoggingLevel(LogLevel level) {
  g_minLogLevel.store(level);
}

std::optional<LogLevel> ParseLogLevel(std::string_view text) {
  for (const auto& entry : kLevelNames) {
    if (entry.name == text) return entry.level;
  }
  return std::nullopt;
}

std::string_view LogLevelName(LogLevel level) {
  for (const auto& entry : kLevelNames) {
    if (entry.level == level) return entry.name;
  }
  return "unknown";
}

void SetHandler(const zr::String& name, Handler handler) {
  Replace(name, &handler);
}

void RemoveHandler(const zr::String& name) {
  Replace(name, nullptr);
}

Handler MakeStderrHandler() {
  auto console = std::make_shared<spdlog::sinks::stderr_color_sink_mt>();
  console->set_pattern("%Y-%m-%dT%H:%M:%S.%f%z %^%l%$ [%n] %v (%s:%#)");
  return [console](const LogRecord& record) {
    const std::string source = SourcePath(record.source);
    const spdlog::source_loc place(record.file, record.line, "");
    const auto since =
        std::chrono::seconds(record.logTime.tv_sec) + std::chrono::nanoseconds(record.logTime.tv_nsec);
    const spdlog::log_clock::time_point time(std::chrono::duration_cast<spdlog::log_clock::duration>(since));
    console->log(spdlog::details::log_msg(time, place, source, ToSpdlog(record.level), record.msg));
  };
}

std::uint64_t LostLines() {
  return TheSink().lostLines.load();
}

zr::String SourcePath(const ConstSourcePtr& source) {
  if (source == nullptr) return "-";
  zr::String path;
  for (ConstSourcePtr node = source->Reverse(); node != nullptr; node = node->Parent()) {
    if (!path.empty()) path += '.';
    path += node->Name();
  }
  return path;
}

/// Handlers lock for themselves, each only for its own output; nothing is to be taken across a statement.
void ForceLockHandlers() {}

void LogMessage(LogLevel level, unsigned int id, DecodeType decodeType, const ConstSourcePtr& source,
                const char* file, int line, const zr::String& msg, const zr::String& handlerName) try {
  const LogRecord record = MakeRecord(level, id, decodeType, source, file, line, msg);
  const auto handlers = TheSink().Handlers();
  // A name that no handler has must not lose the line: it then goes to all of them.
  const bool toOne = !handlerName.empty() && handlers->count(handlerName) != 0;
  for (const auto& [name, handler] : *handlers) {
    if (toOne && name != handlerName) continue;
    try {
      handler(record);
    } catch (...) {
      TheSink().lostLines.fetch_add(1);
    }
  }
} catch (...) {  // called in a destructor: nothing may leave
  TheSink().lostLines.fetch_add(1);
}

}  // namespace zr::logging
