// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// TaskThread without a thread: its turns are events of the simulated world, one task each, so that what other threads do
// comes between any two tasks. And the resolver, which blocks a thread of its own, the clock and chance.
#include "base/task_thread.h"

#include <deque>
#include <exception>
#include <map>
#include <string_view>

#include "base/chance.h"
#include "client/name_resolution.h"
#include "simulation/network.h"

namespace zr::halden::details {

using namespace simulation;  // NOLINT(google-build-using-namespace)

struct TaskThread::State : std::enable_shared_from_this<State> {
  explicit State(std::string_view name) : resolves(name == "halden-resolve") {}
  ~State() { End(); }

  void Post(Clock::duration delay, Task task) {
    if (delay > 0s) {
      timers.emplace(world->now + delay, std::move(task));
    } else {
      tasks.push_back(std::move(task));
    }
    if (!std::exchange(started, true)) {
      ++world->threads;
      const bool slow = resolves && world->Strikes(Fault::Names, 3);
      Schedule(world->now + (slow ? world->Between(1s, 30s) : resolves ? world->Between(1ms, 20ms) : 0s));
    }
    Wake(std::max(delay, world->Between(0us, 50us)));
  }

  void Schedule(Time when) {
    if (next <= when) return;
    next = when;
    world->At(when, [self = shared_from_this(), number = ++turn] {
      if (self->turn == number) self->Turn();
    });
  }

  /// Something has come that it may be waiting for.
  void Wake(Duration delay) {
    if (started && waiting && !resolves) Schedule(world->now + delay);
  }

  void Turn() {
    next = Time::max();
    if (std::exchange(waiting, false)) {
      TellReady();
      if (!Take()) return End();
    }
    if (batch.empty()) return Await();
    {
      const Task task = std::move(batch.front());
      batch.pop_front();
      RunGuarded(task);
    }
    Schedule(world->now + world->Between(0us, 20us) + std::exchange(world->spent, {}));
  }

  void Await() {
    auto end = Time::max();
    RunGuarded([&] {
      if (const auto served = sockets.lock()) end = served->Await(polled);
    });
    waiting = true;
    if (!timers.empty()) end = std::min(end, timers.begin()->first);
    if (!tasks.empty() || ending) end = world->now;
    for (const auto& entry : polled) {
      const auto link = Link::Find(entry.fd);
      if (!link) continue;
      link->wake = [weak = weak_from_this()] {
        if (const auto self = weak.lock()) self->Wake(world->Between(0us, 50us));
      };
      if (link->Ready(entry.events) != 0) end = world->now;
    }
    if (end != Time::max()) Schedule(std::max(end, world->now));
  }

  void TellReady() {
    for (auto& entry : std::exchange(polled, {})) {
      const auto link = Link::Find(entry.fd);
      entry.revents = link ? link->Ready(entry.events) : static_cast<short>(POLLNVAL);
      if (entry.revents == 0) continue;
      RunGuarded([&] {
        if (const auto served = sockets.lock()) served->Ready(entry);
      });
    }
  }

  /// False when the thread is to end.
  bool Take() {
    batch.swap(tasks);
    if (ending) return !batch.empty();
    while (!timers.empty() && timers.begin()->first <= world->now)
      batch.push_back(std::move(timers.extract(timers.begin()).mapped()));
    return true;
  }

  void End() {
    if (!std::exchange(started, false)) return;
    --world->threads;
    ++turn;
    const auto dropped = std::exchange(timers, {});
  }

  const bool resolves;
  std::deque<Task> tasks;  // posted
  std::deque<Task> batch;  // taken, to run before anything else is taken
  std::multimap<Time, Task> timers;
  std::weak_ptr<Sockets> sockets;
  std::vector<pollfd> polled;
  bool started = false, waiting = true, ending = false;
  std::uint64_t turn = 0;  // an event of an earlier schedule finds another number
  Time next = Time::max();
};

TaskThread::TaskThread(const char* name, Priority /*priority*/) : m_state(std::make_shared<State>(name)) {}

TaskThread::~TaskThread() {
  m_state->ending = true;
  m_state->Wake(0s);
}

void TaskThread::Post(Task task) {
  PostAfter(0s, std::move(task));
}

void TaskThread::PostAfter(Clock::duration delay, Task task) {
  const auto state = m_state;  // what it wakes may destroy this
  state->Post(delay, std::move(task));
}

void TaskThread::Serve(std::weak_ptr<Sockets> sockets) {
  m_state->sockets = std::move(sockets);
}

void TaskThread::LogFailure() noexcept {
  try {
    throw;
  } catch (const std::exception& e) {
    world->Violation(std::string("a task failed: ") + e.what());
  }
}

Clock::time_point Clock::now() noexcept {
  return world->now;
}

std::chrono::system_clock::time_point TimeOfDay() noexcept {
  return std::chrono::system_clock::time_point(
      std::chrono::duration_cast<std::chrono::system_clock::duration>(Clock::now().time_since_epoch()));
}

double Chance() {
  return static_cast<double>(world->Draw() >> 11U) * 0x1p-53;
}

bool HasNames(const std::vector<HostPort>& hosts) {
  return hosts.front().host.starts_with("zk");
}

/// The names are "zk" and what stands behind "10." in the address.
ResolvedHosts Resolve(const std::vector<HostPort>& hosts) {
  ResolvedHosts result;
  for (const auto& [host, port] : hosts) {
    const bool isName = host.starts_with("zk");
    if (isName && world->Strikes(Fault::Names, 4)) {
      result.error = host + ": not found";
      continue;
    }
    if (!result.addresses.empty()) result.addresses += ',';
    result.addresses += (isName ? "10." + host.substr(2) : host) + ":" + std::to_string(port);
  }
  return result;
}

}  // namespace zr::halden::details
