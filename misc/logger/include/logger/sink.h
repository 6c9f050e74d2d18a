// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "logger/logger.h"
#include "zrstl/export.h"
#include "zrstl/string.h"

/// The log sink: where finished statements go. Until told otherwise, WARNING and above to stderr.
///
/// A statement goes to the handler that it names, to all where it names none; a name that no handler has
/// loses nothing: the line goes to all, and is counted.
///
/// Threads: every function may be called from any thread at any time, also from inside a handler, and none
/// holds a lock while it calls a handler. A handler runs on the thread that logs, several times at once
/// when several threads log, unless it was set with a queue: then it runs on one thread of its own. A line
/// that a handler itself logs goes to the other handlers only, and what those log then to none: no handler
/// is entered again.
/// Ownership: the sink owns the handlers, and is never destroyed: threads and static objects may log until
/// the process is gone. What a handler refers to must live as long.
/// Errors: a handler that throws loses that line for itself only. Losses are counted, never reported by an
/// exception, a signal (SIGPIPE, SIGXFSZ) or the end of the process.
/// fork: a child process has no queue's thread, and may find a lock taken: set the handlers after forking.
namespace zr::logging {

/// Sets the process-wide threshold; takes effect for statements that start afterwards.
ZR_EXPORT void SetMinimumLoggingLevel(LogLevel level);

/// "debug", "info", "info_local", "info_search", "warning", "error", "alert", "critical" or "off" (only
/// ZRLOG_WALL gets through); else nothing.
ZR_EXPORT std::optional<LogLevel> ParseLogLevel(std::string_view text);
ZR_EXPORT std::string_view LogLevelName(LogLevel level);

/// Writes one line, or throws: that counts it as lost. The record is valid for the call only.
using Handler = std::function<void(const LogRecord&)>;

struct HandlerOptions {
  /// The handler is not given what is below it. Default: all that the process-wide threshold lets through.
  LogLevel level = ZRLOG_DEBUG;

  /// Default 0: the thread that logs waits until the line is written. Else the line is copied, and written
  /// by a thread of the handler's own; of lines that wait for it there are at most so many, the next one is
  /// dropped. Lines that wait when the process ends are gone: `Flush` first.
  std::size_t queueLines = 0;
};

/// Adds a handler, or replaces the one of that name; it counts from 0. The sink starts with one handler,
/// "stderr". Throws std::system_error where a queue's thread cannot be started.
ZR_EXPORT void SetHandler(const zr::String& name, Handler handler, const HandlerOptions& options = {});

/// Removes a handler; removing one that is not there does nothing. A statement in progress on another
/// thread may still be inside it when this returns; with a queue, it ends on its thread once all that waits
/// is written.
ZR_EXPORT void RemoveHandler(const zr::String& name);

/// Changes a handler's own level while it runs. False: there is no such handler.
ZR_EXPORT bool SetHandlerLevel(const zr::String& name, LogLevel level);

/// What became of the lines for one handler that its level let through.
struct HandlerCounters {
  std::uint64_t written = 0;  ///< its function returned
  std::uint64_t lost = 0;     ///< its function threw: disk full, broken pipe
  std::uint64_t dropped = 0;  ///< never given to it: the queue was full, or a handler logged the line
};

/// Of the present handlers, by name.
ZR_EXPORT std::map<zr::String, HandlerCounters> GetHandlerCounters();

/// Lines lost since the process began, those of removed handlers included.
ZR_EXPORT std::uint64_t LostLines();

/// Lines that named a handler which is not there.
ZR_EXPORT std::uint64_t LinesForUnknownHandlers();

/// Waits until every line that was queued before the call is written; no longer than `timeout`. True: all
/// are. False at once inside a handler, which would wait for itself.
ZR_EXPORT bool Flush(std::chrono::milliseconds timeout);

/// Every file handler opens its path anew before its next line: call it when something else has moved the
/// files. May be called in a signal handler. Lines that find no file to be opened are lost, and the next
/// one tries again.
ZR_EXPORT void Reopen() noexcept;

// The handlers below write each line with one call and without a buffer of their own. Those of text turn
// control characters into escapes: one statement is one line, whatever it holds.

/// Text to a descriptor, which stays the caller's. The level is coloured if that is a terminal that can,
/// unless the environment variable NO_COLOR is set and not empty. A descriptor that would block is waited
/// for, but one in non-blocking mode for 100 ms only.
ZR_EXPORT Handler MakeConsoleHandler(int descriptor = STDERR_FILENO);

/// The handler the sink starts with.
ZR_EXPORT Handler MakeStderrHandler();

struct FileOptions {
  std::string path;

  /// A line that would make the file longer goes to a new one; the old becomes "path.1", that "path.2" and
  /// so on. 0: never, for files that something else moves (`Reopen`). Where renaming fails the file grows
  /// on, and it is tried again after as many bytes. Default: 64 MiB.
  std::uint64_t maxBytes = 64UL * 1024 * 1024;

  /// So many old files are kept. Default: 5.
  unsigned keptFiles = 5;
};

/// Text or JSON appended to a file, which one process at a time may write when it is to rotate. Throw
/// std::system_error if it cannot be opened; its folder must exist.
ZR_EXPORT Handler MakeFileHandler(const FileOptions& options);
ZR_EXPORT Handler MakeJsonFileHandler(const FileOptions& options);

/// JSON lines to a descriptor, as `MakeConsoleHandler` writes text. Their fields: docs/logging.md.
ZR_EXPORT Handler MakeJsonHandler(int descriptor);

/// To syslog(3), whose identity and options stay the program's own (openlog). It reports no failures: all
/// counts as written.
ZR_EXPORT Handler MakeSyslogHandler();

/// A source's name with those of its parents, outermost first, joined with dots; "-" for a null source.
ZR_EXPORT zr::String SourcePath(const ConstSourcePtr& source);

}  // namespace zr::logging
