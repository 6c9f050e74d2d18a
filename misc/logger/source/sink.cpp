// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "logger/sink.h"

#include <algorithm>
#include <ios>
#include <memory>
#include <utility>

#include "line_queue.h"
#include "zrstl/thread_safety.h"

namespace zr::logging {

namespace {

struct Entry {
  Entry(Handler function, LogLevel least) : handler(std::move(function)), level(least) {}

  const Handler handler;
  std::shared_ptr<details::LineQueue> queue;  // constant once a statement can find it; null: none
  std::atomic<LogLevel> level;
  std::atomic<std::uint64_t> written{0};
  std::atomic<std::uint64_t> lost{0};
  std::atomic<std::uint64_t> dropped{0};
};

using Entries = std::map<zr::String, std::shared_ptr<Entry>>;

/// The handlers are an immutable map that a statement takes a reference to: they run with no lock held.
struct Sink {
  zr::Mutex mtx;
  std::shared_ptr<const Entries> entries ZR_GUARDED_BY(mtx);
  std::atomic<std::uint64_t> lost{0};
  std::atomic<std::uint64_t> forUnknown{0};

  Sink()
      : entries(std::make_shared<Entries>(
            Entries{{"stderr", std::make_shared<Entry>(MakeStderrHandler(), ZRLOG_DEBUG)}})) {}

  std::shared_ptr<const Entries> All() {
    const zr::MutexLock lock(mtx);
    return entries;
  }
};

/// Never destroyed: threads that outlive main() and static objects may still log.
Sink& TheSink() {
  static auto* const sink = new Sink;
  return *sink;
}

/// The handler that runs on this thread now, and how many are between it and the statement that began it,
/// those on other threads included.
thread_local const Entry* t_running = nullptr;
thread_local int t_depth = 0;

void Deliver(Entry& entry, const LogRecord& record, int depth) noexcept {
  const Entry* const outer = std::exchange(t_running, &entry);
  const int outerDepth = std::exchange(t_depth, depth + 1);
  try {
    entry.handler(record);
    entry.written.fetch_add(1, std::memory_order_relaxed);
  } catch (...) {
    entry.lost.fetch_add(1, std::memory_order_relaxed);
    TheSink().lost.fetch_add(1, std::memory_order_relaxed);
  }
  t_running = outer;
  t_depth = outerDepth;
}

void HandOver(Entry& entry, const LogRecord& record) {
  constexpr int maxDepth = 2;
  if (record.level < entry.level.load(std::memory_order_relaxed)) return;
  const bool isEcho = &entry == t_running || t_depth >= maxDepth;
  if (isEcho || (entry.queue != nullptr && !entry.queue->Push(record, t_depth))) {
    entry.dropped.fetch_add(1, std::memory_order_relaxed);
  } else if (entry.queue == nullptr) {
    Deliver(entry, record, t_depth);
  }
}

void Replace(const zr::String& name, std::shared_ptr<Entry> entry) {
  Sink& sink = TheSink();
  std::shared_ptr<const Entries> before;  // released after the lock: a handler's destructor is foreign code
  {
    const zr::MutexLock lock(sink.mtx);
    auto changed = std::make_shared<Entries>(*sink.entries);
    changed->erase(name);
    if (entry != nullptr) changed->emplace(name, std::move(entry));
    before = std::exchange(sink.entries, std::move(changed));
  }
  const auto old = before->find(name);
  if (old != before->end() && old->second->queue != nullptr) old->second->queue->Close();
}

/// The statement that is being completed still has its text and its formatting in the thread's stream; one
/// that a handler makes on this thread must not begin with them.
void CleanStream() {
  constexpr std::streamsize defaultPrecision = 6;
  IPStringStream& stream = GetThreadLocalStream();
  Reset(stream, Logger::kKeepStreamBytes);
  stream.flags(std::ios_base::dec | std::ios_base::skipws);
  stream.precision(defaultPrecision);
  stream.width(0);
}

}  // namespace

void SetHandler(const zr::String& name, Handler handler, const HandlerOptions& options) {
  auto entry = std::make_shared<Entry>(std::move(handler), options.level);
  if (options.queueLines != 0) {
    const auto deliver = [entry](const LogRecord& record, int depth) { Deliver(*entry, record, depth); };
    entry->queue = details::LineQueue::Start(options.queueLines, deliver);
  }
  Replace(name, std::move(entry));
}

void RemoveHandler(const zr::String& name) {
  Replace(name, nullptr);
}

bool SetHandlerLevel(const zr::String& name, LogLevel level) {
  const auto entries = TheSink().All();
  const auto entry = entries->find(name);
  if (entry == entries->end()) return false;
  entry->second->level.store(level, std::memory_order_relaxed);
  return true;
}

std::map<zr::String, HandlerCounters> GetHandlerCounters() {
  std::map<zr::String, HandlerCounters> counters;
  const auto entries = TheSink().All();
  for (const auto& [name, entry] : *entries) {
    counters[name] = {entry->written.load(), entry->lost.load(), entry->dropped.load()};
  }
  return counters;
}

std::uint64_t LostLines() {
  return TheSink().lost.load();
}

std::uint64_t LinesForUnknownHandlers() {
  return TheSink().forUnknown.load();
}

bool Flush(std::chrono::milliseconds timeout) {
  if (t_depth > 0) return false;
  constexpr std::chrono::milliseconds longest = std::chrono::hours(24);  // more could overflow the clock
  const auto deadline = std::chrono::steady_clock::now() + std::min(timeout, longest);
  bool all = true;
  const auto entries = TheSink().All();
  for (const auto& [name, entry] : *entries) {
    if (entry->queue != nullptr && !entry->queue->AwaitDelivered(deadline)) all = false;
  }
  return all;
}

/// Handlers lock for themselves, each only for its own output; nothing is to be taken across a statement.
void ForceLockHandlers() {}

void LogMessage(LogLevel level, unsigned int id, DecodeType decodeType, const ConstSourcePtr& source,
                const char* file, int line, const zr::String& msg, const zr::String& handlerName) try {
  timespec now{};
  timespec_get(&now, TIME_UTC);
  const LogRecord record{level,
                         id,
                         decodeType,
                         source,
                         file == nullptr ? "" : file,
                         line,
                         msg,
                         now,
                         static_cast<std::size_t>(gettid()),
                         {}};
  CleanStream();
  const auto entries = TheSink().All();
  const auto named = handlerName.empty() ? entries->end() : entries->find(handlerName);
  if (named != entries->end()) return HandOver(*named->second, record);
  if (!handlerName.empty()) TheSink().forUnknown.fetch_add(1, std::memory_order_relaxed);
  for (const auto& [name, entry] : *entries) HandOver(*entry, record);
} catch (...) {  // called in a destructor: nothing may leave
  TheSink().lost.fetch_add(1);
}

}  // namespace zr::logging
