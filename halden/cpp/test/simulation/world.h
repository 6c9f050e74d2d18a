// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <array>
#include <bitset>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/clock.h"

namespace zr::halden::simulation {

using Time = details::Clock::time_point;
using Duration = details::Clock::duration;
using namespace std::chrono_literals;

struct Ensemble;
struct Link;
struct World;

/// The one that is played; everything simulated finds it here.
inline World* world = nullptr;

/// What may go wrong or be used in a run. Each seed draws which of them it has at all.
struct Fault {
  enum Kind : std::uint8_t {
    Kill,            ///< a server dies, and comes back
    Freeze,          ///< a server stops for a while, with all connections open
    DeposedLeader,   ///< a leader that was frozen or cut off still believes that it leads
    Partition,       ///< clients do not reach a server
    Lag,             ///< a follower is seconds behind
    Anew,            ///< the ensemble loses all its data
    Expire,          ///< a session is ended by the servers, or forced to end
    Move,            ///< a session is taken up elsewhere for a moment
    LostEvent,       ///< a watch is used up and its event never sent
    LostCompletion,  ///< an answer is dropped inside the client library
    Cut,             ///< a connection breaks, in the middle of what is under way
    Budget,          ///< paths so long that a few dozen watches reach the limit of a reconnect
    Names,           ///< resolution that is slow or fails
    Acl,             ///< nodes that may not be read for a while
    Garbage,         ///< nodes that do not decode
    Stop,            ///< connections stopped and started by the application
    Callback,        ///< operations from inside callbacks
    Throw,           ///< an observer that throws, behind all others
    ThrowFirst,      ///< ... before the others, which then miss the event
    Slow,            ///< observers that take their time
    Guard,           ///< the guard against mass removals is set
    Global,          ///< a watcher of all data centres at once
    Disconnect,      ///< ... whose connections are removed, and added again
    Snapshots,       ///< ... which begins with what was known then
  };
};
inline const std::vector<std::string> kFaultNames = {
    "kill",    "freeze",     "deposed-leader",  "partition", "lag",         "anew",  "expire",
    "move",    "lost-event", "lost-completion", "cut",       "budget",      "names", "acl",
    "garbage", "stop",       "callback",        "throw",     "throw-first", "slow",  "guard",
    "global",  "disconnect", "snapshots"};
using Faults = std::bitset<Fault::Snapshots + 1>;

/// One run: the time, what happens next, and the source of all chance. Among what is due at the same time the
/// seed chooses.
struct World {
  explicit World(std::uint64_t seed) : random(seed * 0x9E3779B97F4A7C15U + 1) {
    world = this;
    const auto share = 1 + Below(3);  // of four
    for (std::size_t i = 0; i < faults.size(); ++i) faults[i] = Below(4) < share;
  }

  ~World() {
    while (!events.empty()) const auto gone = std::exchange(events, {});  // what they own finds the world yet
    links.clear();
    world = nullptr;
  }

  void At(Time time, std::function<void()> what) {
    events.push_back({std::max(time, now), Draw(), std::move(what)});
    std::push_heap(events.begin(), events.end());
  }

  void After(Duration delay, std::function<void()> what) { At(now + delay, std::move(what)); }
  /// Plays what is due until `end`; stops early at a violation.
  void RunUntil(Time end) {
    while (!events.empty() && events.front().time <= end && violation.empty()) {
      std::pop_heap(events.begin(), events.end());
      const Event event = std::move(events.back());
      events.pop_back();
      now = event.time;
      event.what();
    }
    now = std::max(now, end);
  }

  std::uint64_t Draw() {  // splitmix64
    std::uint64_t z = random += 0x9E3779B97F4A7C15U;
    z = (z ^ (z >> 30U)) * 0xBF58476D1CE4E5B9U;
    z = (z ^ (z >> 27U)) * 0x94D049BB133111EBU;
    return z ^ (z >> 31U);
  }

  std::uint64_t Below(std::uint64_t limit) { return limit == 0 ? 0 : Draw() % limit; }
  bool OneIn(std::uint64_t sides) { return Below(sides) == 0; }
  auto& OneOf(auto& many) { return many[Below(many.size())]; }
  Duration Between(Duration from, Duration to) {
    return from + Duration(Below(static_cast<std::uint64_t>((to - from).count())));
  }
  /// It happens now, one time in so many; never while all is calm.
  bool Strikes(Fault::Kind fault, std::uint64_t sides) { return !calm && faults[fault] && OneIn(sides); }

  /// A line of the trace, which is what two runs of one seed are compared by.
  __attribute__((format(printf, 2, 3))) void Note(const char* format, ...) {
    std::array<char, 240> line{};
    const auto time = (now.time_since_epoch() - 1000s) / 1us;
    const auto head = static_cast<std::size_t>(
        std::snprintf(line.data(), line.size(), "%4ld.%06ld ", time / 1'000'000, time % 1'000'000));
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line.data() + head, line.size() - head, format, arguments);
    va_end(arguments);
    trace.emplace_back(line.data());
    for (const char letter : trace.back())
      hash = (hash ^ static_cast<unsigned char>(letter)) * 1099511628211U;
    if (trace.size() > 2000) trace.pop_front();
  }

  void Violation(const std::string& what) {
    Note("VIOLATION %s", what.c_str());
    if (violation.empty()) violation = what;
  }

  struct Event {
    Time time;
    std::uint64_t order;
    std::function<void()> what;
    bool operator<(const Event& other) const {  // the first one is on top of a heap
      return time != other.time ? time > other.time : order > other.order;
    }
  };

  std::uint64_t random;
  Time now{1000s};
  std::vector<Event> events{};  // a heap
  Faults faults{};
  std::deque<std::string> trace{};
  std::string violation{};  ///< the first
  std::uint64_t hash = 14695981039346656037U;
  bool calm = false;                   ///< faults have their pause
  Duration spent{};                    ///< so long has taken the task that runs
  int threads = 0;                     ///< alive; of TaskThread
  int handles = 0;                     ///< of the client library
  int asked = 0;                       ///< requests of theirs
  std::vector<Duration> pauses{};      ///< from the begin of a session to the first list asked for in it
  std::vector<Ensemble*> ensembles{};  ///< by their numbers
  std::map<int, std::shared_ptr<Link>> links{};  ///< by their descriptors
};

}  // namespace zr::halden::simulation
