// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <boost/io/ios_state.hpp>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <ostream>
#include <sstream>
#include <utility>

#include "zrstl/export.h"
#include "zrstl/sstream.h"
#include "zrstl/string.h"

/// The logging front end: one gated, stream-style statement,
///
///     ZRLOG(ZRLOG_INFO, g_log) << "connected, dc_name=" << name;
///
/// Threads: any thread may log at any time; each has a stream of its own, so the front end takes no lock.
/// One statement at a time per thread: an operand that itself logs would mix both texts.
/// Cost: a suppressed statement is one atomic load and one comparison; its operands are not evaluated.
/// Errors: none of its own. A statement ends in a destructor, so an exception out of the sink would end the
/// process; the sink (logger/sink.h) never lets one out. An operand that throws completes the statement with
/// the text collected so far, and the exception goes on to the caller.
namespace zr::logging {

using IPString = zr::InPlaceRefString;
using IPStringStream = zr::InPlaceRefStringStream;

/// Severity: higher is more severe. The gaps leave room for thresholds between the main levels.
enum LogLevel : std::int32_t {
  ZRLOG_DEBUG = 0,
  ZRLOG_INFO = 10,
  ZRLOG_INFO_LOCAL = 14,
  ZRLOG_INFO_SEARCH = 17,
  ZRLOG_WARNING = 20,
  ZRLOG_ERROR = 30,
  ZRLOG_ALERT = 35,
  ZRLOG_CRITICAL = 40,
  ZRLOG_WALL = 100,
};

/// How the sink is to read a message's text.
enum DecodeType : std::int32_t {
  ZRLOG_DECODE_AS_NONE = 0,
  ZRLOG_DECODE_AS_KV = 1,  ///< a phrase, then key=value
  ZRLOG_DECODE_AS_JSON = 2,
  ZRLOG_DECODE_AS_MIXED = 3,
  ZRLOG_DECODE_AS_PB = 4,
};

/// The component that logs: an immutable node of a name hierarchy, shared by every statement that uses it.
class ZR_EXPORT Source {
 public:
  explicit Source(const char* name) : m_name(name) {}
  explicit Source(IPString name) : m_name(std::move(name)) {}
  Source(const char* name, std::shared_ptr<const Source> parent)
      : m_name(name), m_parent(std::move(parent)) {}
  Source(IPString name, std::shared_ptr<const Source> parent)
      : m_name(std::move(name)), m_parent(std::move(parent)) {}

  const IPString& Name() const { return m_name; }
  const std::shared_ptr<const Source>& Parent() const { return m_parent; }

  /// The same names in the opposite order: a chain that starts at the root and whose `Parent`s lead to this
  /// source, as a renderer reads it.
  const std::shared_ptr<const Source> Reverse() const {
    auto reversed = std::make_shared<const Source>(m_name);
    for (const Source* node = m_parent.get(); node != nullptr; node = node->m_parent.get()) {
      reversed = std::make_shared<const Source>(node->m_name, reversed);
    }
    return reversed;
  }

 private:
  IPString m_name;
  std::shared_ptr<const Source> m_parent;
};

using SourcePtr = std::shared_ptr<Source>;
using ConstSourcePtr = std::shared_ptr<const Source>;

template <typename... Args>
SourcePtr MakeSource(Args&&... args) {
  return std::make_shared<Source>(std::forward<Args>(args)...);
}

/// One finished message as a sink hands it on. It refers to source and text; neither is copied.
struct LogRecord {
  LogLevel level;
  unsigned int id;
  DecodeType decodeType;
  const ConstSourcePtr& source;  ///< may hold null
  const char* file;
  int line;
  const IPString& msg;
  timespec logTime;
  std::size_t threadId;
  std::function<void(std::stringstream&)> function;
};

/// The process-wide threshold: statements below it cost a load and a comparison. Owned by the sink.
ZR_EXPORT extern std::atomic<LogLevel> g_minLogLevel;
ZR_EXPORT extern bool g_toggleableDebugControl;
ZR_EXPORT extern const int g_defaultConfigFlags;

/// What the front end asks of the sink. Called on the logging thread; arguments are valid only for the call.
ZR_EXPORT void ForceLockHandlers();
ZR_EXPORT void LogMessage(LogLevel level, unsigned int id, DecodeType decodeType,
                          const ConstSourcePtr& source, const char* file, int line, const zr::String& msg,
                          const zr::String& handlerName);

inline LogLevel GetMinimumLoggingLevel() {
  return g_minLogLevel.load();
}

/// The calling thread's log stream: made at the thread's first statement, empty between statements, and
/// gone with the thread. Static objects that log in their destructors come after that on the main thread:
/// they get another one, which is never destroyed.
/// Exported, so that a thread has one stream in the whole process, whatever module a statement is compiled in:
/// the sink cleans it for handlers that log, and must not clean another one than they use.
ZR_EXPORT inline IPStringStream& GetThreadLocalStream() {
  static thread_local IPStringStream* stream = nullptr;
  if (stream == nullptr) {
    stream = new IPStringStream;
    struct Owner {
      ~Owner() { delete std::exchange(stream, nullptr); }
    };
    static thread_local const Owner owner;  // made once: the stream after it has none
    static_cast<void>(owner);
  }
  return *stream;
}

/// One statement; used only as the temporary that the macros below make.
class Logger {
 public:
  Logger(LogLevel level, unsigned int code, DecodeType decodeType, const ConstSourcePtr& source,
         const char* fname, int linenum, const zr::String& handlerName)
      : m_level(level),
        m_id(code),
        m_decodeType(decodeType),
        m_filename(fname),
        m_lineNumber(linenum),
        m_source(source),
        m_stream(GetThreadLocalStream()),
        m_saver(m_stream),
        m_handlerName(handlerName) {}

  virtual ~Logger() {
    ForceLockHandlers();
    const zr::String msg = Finish(m_stream);
    LogMessage(m_level, m_id, m_decodeType, m_source, m_filename, m_lineNumber, msg, m_handlerName);
    Reset(m_stream, kKeepStreamBytes);
  }

  Logger(const Logger&) = delete;
  Logger& operator=(const Logger&) = delete;

  std::ostream& Stream() { return m_stream; }

  /// A stream that has grown past it gives its buffer back.
  static constexpr std::size_t kKeepStreamBytes = 64UL * 1024;

 private:
  LogLevel m_level;
  unsigned int m_id;
  DecodeType m_decodeType;
  const char* m_filename;
  int m_lineNumber;
  ConstSourcePtr m_source;
  IPStringStream& m_stream;
  boost::io::ios_base_all_saver m_saver;
  const zr::String m_handlerName;
};

/// Swallows a stream expression, so that gate, construction and insertions are one expression of type void.
struct VoidifyStream {
  void operator&(std::ostream&) const {}
};

}  // namespace zr::logging

/// A statement at `level` from `source` (a ConstSourcePtr, may be null) for the handler named `handler`
/// (empty: all). Enumerators may be written without their namespace.
// NOLINTBEGIN(bugprone-macro-parentheses): the insertions that follow must be able to join the expression
#define ZRLOG_TO(level, source, handler)                                                                  \
  (::zr::logging::GetMinimumLoggingLevel() > ::zr::logging::level)                                        \
      ? static_cast<void>(0)                                                                              \
      : ::zr::logging::VoidifyStream() & ::zr::logging::Logger(::zr::logging::level, 0,                   \
                                                               ::zr::logging::ZRLOG_DECODE_AS_KV, source, \
                                                               __FILE__, __LINE__, handler)               \
                                             .Stream()

// NOLINTEND(bugprone-macro-parentheses)

#define ZRLOG(level, source) ZRLOG_TO(level, source, ::zr::String())
