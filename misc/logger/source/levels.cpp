// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <array>

#include "logger/sink.h"

namespace zr::logging {

std::atomic<LogLevel> g_minLogLevel{ZRLOG_WARNING};
bool g_toggleableDebugControl = false;
const int g_defaultConfigFlags = 95;

namespace {

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

}  // namespace zr::logging
