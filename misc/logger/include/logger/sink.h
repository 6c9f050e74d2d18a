// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>

#include "logger/logger.h"
#include "zrstl/string.h"

/// The log sink: where finished statements go. Until told otherwise, WARNING and above to stderr.
///
/// Threads: every function may be called from any thread at any time. Handlers are called on the thread that
/// logs, several at once when several threads log, with no lock of the sink held. A handler may change the
/// handlers, but must not log: the statement that it serves is not complete yet, and its text would come
/// again.
/// Errors: a handler that throws loses that line for itself only; the loss is counted (`LostLines`).
namespace zr::logging {

using Handler = std::function<void(const LogRecord&)>;

/// Sets the process-wide threshold; takes effect for statements that start afterwards.
void SetMinimumLoggingLevel(LogLevel level);

/// "debug", "info", "info_local", "info_search", "warning", "error", "alert", "critical" or "off" (only
/// ZRLOG_WALL gets through); else nothing.
std::optional<LogLevel> ParseLogLevel(std::string_view text);
std::string_view LogLevelName(LogLevel level);

/// Adds a handler, or replaces the one of that name. The sink starts with one handler, "stderr".
void SetHandler(const zr::String& name, Handler handler);

/// Removes a handler; removing one that is not there does nothing. A statement in progress on another thread
/// may still be inside it when this returns.
void RemoveHandler(const zr::String& name);

/// The handler the sink starts with: one line per message to stderr, with time, level, source and place.
Handler MakeStderrHandler();

/// Lines that a handler threw away by throwing.
std::uint64_t LostLines();

/// A source's name with those of its parents, outermost first, joined with dots; "-" for a null source.
zr::String SourcePath(const ConstSourcePtr& source);

}  // namespace zr::logging
