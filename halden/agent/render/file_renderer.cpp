// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "agent/render/file_renderer.h"

#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cassert>
#include <cerrno>
#include <new>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include "agent/render/rendering.h"
#include "base/file_descriptor.h"
#include "logger/logger.h"
#include "zrstl/thread_safety.h"

namespace zr::halden::agent {

namespace {

using TimePoint = std::chrono::steady_clock::time_point;

const zr::logging::ConstSourcePtr& RenderLog() {
  static const auto& source = *new zr::logging::ConstSourcePtr(zr::logging::MakeSource("halden.render"));
  return source;
}

/// Runs one rendering after another on a thread that takes no signal.
class Worker {
 public:
  using Reporter = std::function<void(RenderOutcome)>;

  /// `report` is called on the thread.
  Worker(const RenderOptions& options, Reporter report)
      : m_stop(eventfd(0, EFD_CLOEXEC)), m_rendering(options, m_stop.Get()), m_report(std::move(report)) {
    if (!m_stop) throw std::system_error(errno, std::generic_category(), "eventfd");
    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    m_thread = std::thread([this] { Run(); });
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  }
  ~Worker() {
    {
      const zr::MutexLock lock(m_mtx);
      m_ending = true;
    }
    eventfd_write(m_stop.Get(), 1);
    m_changed.NotifyOne();
    m_thread.join();
  }
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  void Begin(std::vector<std::string> lists) {
    {
      const zr::MutexLock lock(m_mtx);
      m_lists = std::move(lists);
    }
    m_changed.NotifyOne();
  }

 private:
  void Run() {
    pthread_setname_np(pthread_self(), "halden-render");
    while (const auto lists = Next()) Report(m_rendering.Run(*lists));
  }

  /// Without it nothing would be made again: where there is no memory for it, it is tried until there is.
  void Report(const RenderOutcome& outcome) {
    bool isEnding = false;
    while (!isEnding) {
      try {
        return m_report(outcome);
      } catch (const std::bad_alloc&) {
        zr::MutexLock lock(m_mtx);
        isEnding = m_changed.WaitUntil(m_mtx, TimePoint::clock::now() + std::chrono::seconds(1),
                                       [this]() ZR_REQUIRES(m_mtx) { return m_ending; });
      }
    }
  }

  std::optional<std::vector<std::string>> Next() {
    zr::MutexLock lock(m_mtx);
    m_changed.Wait(m_mtx, [this]() ZR_REQUIRES(m_mtx) { return m_ending || m_lists; });
    if (m_ending) return std::nullopt;
    return std::exchange(m_lists, std::nullopt);
  }

  const details::FileDescriptor m_stop;
  Rendering m_rendering;  // the thread's alone
  const Reporter m_report;
  zr::Mutex m_mtx;
  zr::ConditionVariable m_changed;
  std::optional<std::vector<std::string>> m_lists ZR_GUARDED_BY(m_mtx);
  bool m_ending ZR_GUARDED_BY(m_mtx) = false;
  std::thread m_thread;
};

std::chrono::milliseconds RetryPause(unsigned failures) {
  using std::chrono::seconds;
  constexpr unsigned mostDoublings = 6;
  return std::min(seconds(1) * (1U << std::min(failures - 1, mostDoublings)), seconds(60));
}

}  // namespace

/// All of it is the loop's, but for what the worker does.
///
///   Idle --change--> Waiting --its time has come--> Working --done--> Idle
///   Waiting --change--> Waiting, for longer
///   Waiting --its time has come, and there is nothing to make it of yet--> Idle
///   Working --done, and it has failed or something has changed meanwhile--> Waiting
class FileRenderer::State : public std::enable_shared_from_this<State> {
 public:
  State(const boost::asio::any_io_executor& loop, const RenderOptions& options, Lists lists)
      : m_target(options.target),
        m_wait(options.wait),
        m_lists(std::move(lists)),
        m_loop(loop),
        m_timer(loop) {}

  void Start(const RenderOptions& options) {
    m_worker.emplace(options, [loop = m_loop, weak = weak_from_this()](RenderOutcome outcome) {
      boost::asio::post(loop, [weak, outcome = std::move(outcome)] {
        if (const auto self = weak.lock()) self->Done(outcome);
      });
    });
  }

  void Close() {
    m_timer.cancel();
    m_worker.reset();
  }

  void Changed() {
    const auto now = TimePoint::clock::now();
    if (!m_firstChange) m_firstChange = now;
    if (m_phase == Phase::Working) {
      m_lastChange = now;
      return;
    }
    m_lastChange = now;
    WaitUntil(m_everDone ? std::min(now + m_wait.min, *m_firstChange + m_wait.max) : now);
  }

  const RenderCounters& Counters() const { return m_counters; }

 private:
  enum class Phase : std::uint8_t { Idle, Waiting, Working };

  void SetPhase(Phase next) {
    assert(next != m_phase || next == Phase::Waiting);
    assert(next != Phase::Working || m_phase == Phase::Waiting);
    m_phase = next;
  }

  void WaitUntil(TimePoint time) {
    SetPhase(Phase::Waiting);
    m_timer.expires_at(time);
    m_timer.async_wait([weak = weak_from_this()](const boost::system::error_code& error) {
      const auto self = weak.lock();
      if (self && !error && self->m_phase == Phase::Waiting) self->Begin();
    });
  }

  void Begin() {
    auto lists = m_lists();  // should it throw, the next change tries again
    m_firstChange.reset();
    if (lists.empty()) return SetPhase(Phase::Idle);
    SetPhase(Phase::Working);
    m_worker->Begin(std::move(lists));
  }

  void Done(const RenderOutcome& outcome) {
    SetPhase(Phase::Idle);
    m_everDone = true;
    Tell(outcome);
    const auto now = TimePoint::clock::now();
    if (outcome.result == RenderResult::Failed) {
      if (!m_firstChange) m_firstChange = now;
      WaitUntil(now + RetryPause(++m_failures));
    } else {
      m_failures = 0;
      if (m_firstChange) WaitUntil(std::min(m_lastChange + m_wait.min, *m_firstChange + m_wait.max));
    }
  }

  void Tell(const RenderOutcome& outcome) {
    switch (outcome.result) {
      case RenderResult::Unchanged:
        ++m_counters.unchanged;
        break;
      case RenderResult::Written:
        ++m_counters.written;
        ZRLOG(ZRLOG_INFO, RenderLog()) << "file written, target=" << m_target.native()
                                       << ", instances=" << outcome.instances << ", bytes=" << outcome.bytes;
        break;
      case RenderResult::HeldBack:
        ++m_counters.heldBack;
        ZRLOG(ZRLOG_WARNING, RenderLog())
            << "file kept, a service has no instances, target=" << m_target.native()
            << ", service=" << outcome.reason;
        break;
      case RenderResult::Failed:
        ++m_counters.failed;
        ZRLOG(ZRLOG_ERROR, RenderLog())
            << "file not brought up to date, target=" << m_target.native() << ", error=" << outcome.reason;
        break;
    }
    m_counters.lastFailure = outcome.result == RenderResult::Failed ? outcome.reason : "";
  }

  const std::filesystem::path m_target;
  const RenderWait m_wait;
  const Lists m_lists;
  const boost::asio::any_io_executor m_loop;
  boost::asio::steady_timer m_timer;
  Phase m_phase = Phase::Idle;
  std::optional<TimePoint> m_firstChange;  // of those that no rendering has seen
  TimePoint m_lastChange;
  bool m_everDone = false;
  unsigned m_failures = 0;  // in a row
  RenderCounters m_counters;
  std::optional<Worker> m_worker;
};

FileRenderer::FileRenderer(const boost::asio::any_io_executor& loop, const RenderOptions& options,
                           Lists lists)
    : m_state(std::make_shared<State>(loop, options, std::move(lists))) {
  m_state->Start(options);
}

FileRenderer::~FileRenderer() {
  m_state->Close();
}

void FileRenderer::Changed() {
  m_state->Changed();
}

const RenderCounters& FileRenderer::Counters() const {
  return m_state->Counters();
}

}  // namespace zr::halden::agent
