// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// For how long a connection's thread is held up, by the network above all: tasks are posted to it every millisecond while
// something goes on, and the time until each has its turn is taken. On private headers, hence a program of its own.
#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "halden/testing/poll.h"
#include "halden/testing/zookeeper_server.h"
#include "logger/sink.h"
#include "model/layout.h"
#include "session/connection_core.h"

namespace zr::halden::bench {

namespace {

using details::ConnectionCore;
using Clock = std::chrono::steady_clock;
using Millis = std::chrono::duration<double, std::milli>;
constexpr std::chrono::seconds kLimit{60};

void Require(bool condition, const char* what) {
  if (!condition) throw std::runtime_error(what);
}

/// What tasks wait for their turn, from construction to `End`.
class Probe {
 public:
  explicit Probe(std::shared_ptr<ConnectionCore> core)
      : m_thread([this, core = std::move(core)] {
          while (!m_over) {
            core->Post([delays = m_delays, sent = Clock::now()] {
              const std::lock_guard lock(delays->mtx);
              delays->millis.push_back(Millis(Clock::now() - sent).count());
            });
            ++m_posted;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
          }
        }) {}
  ~Probe() { Join(); }

  std::vector<double> End() {
    Join();
    const auto all = [this] {
      const std::lock_guard lock(m_delays->mtx);
      return m_delays->millis.size() == m_posted;
    };
    Require(testing::Poll(kLimit, all), "a task did not run");
    return m_delays->millis;
  }

 private:
  struct Delays {
    std::mutex mtx;
    std::vector<double> millis;  // guarded by mtx
  };

  void Join() {
    m_over = true;
    if (m_thread.joinable()) m_thread.join();
  }

  const std::shared_ptr<Delays> m_delays = std::make_shared<Delays>();
  std::atomic<bool> m_over{false};
  std::atomic<std::size_t> m_posted{0};
  std::thread m_thread;
};

std::shared_ptr<ConnectionCore> Connect(const testing::ZooKeeperServer& server) {
  auto core = std::make_shared<ConnectionCore>(
      details::ConnectionOptions{{server.ConnectString()}, true, {}, std::chrono::seconds(10), "bench"});
  core->Start(nullptr);
  Require(testing::Poll(kLimit, [&] { return core->Status().state == ConnectionState::Connected; }),
          "not connected");
  return core;
}

/// `count` nodes with so many bytes each, as fast as they can be asked for.
void Write(const std::shared_ptr<ConnectionCore>& core, std::size_t count, std::size_t bytes) {
  for (std::size_t i = 0; i < count; ++i) {
    core->Post([core, data = std::string(bytes, 'x')] {
      core->Submit({.kind = details::Request::Kind::Create,
                    .path = "/" + ToString(MakeServiceId()),
                    .data = data,
                    .mode = ZOO_EPHEMERAL});
    });
  }
}

void Pass(std::chrono::milliseconds time) {
  std::this_thread::sleep_for(time);
}

/// Waits until the thread has done what was posted to it so far.
void Settle(const std::shared_ptr<ConnectionCore>& core) {
  const auto done = std::make_shared<std::atomic<bool>>(false);
  core->Post([done] { *done = true; });
  Require(testing::Poll(kLimit, [&] { return done->load(); }), "a task did not run");
}

using Server = testing::ZooKeeperServer;
using Core = std::shared_ptr<ConnectionCore>;

struct Scene {
  const char* name;
  std::function<void(Server&, const Core&)> prepare;  // not measured
  std::function<void(Server&, const Core&)> play;
};

std::vector<Scene> Scenes() {
  using namespace std::chrono_literals;
  const auto nothing = [](Server&, const Core&) {};
  const auto write = [](Server&, const Core& core) { Write(core, 2000, 200); };
  const auto fillSocket = [](Server& server, const Core& core) {
    server.Freeze();
    Write(core, 30, 700'000);
  };
  return {
      {"connected, idle", nothing, [](Server&, const Core&) { Pass(1s); }},
      {"connected, 2,000 writes under way", write, [](Server&, const Core&) { Pass(2s); }},
      {"server frozen, 21 MB waiting to be sent", fillSocket, [](Server&, const Core&) { Pass(2s); }},
      {"Stop and Start with that, server thawed in the end", fillSocket,
       [](Server& server, const Core& core) {
         core->Stop();
         core->Start(nullptr);
         Pass(5s);
         server.Thaw();
         Pass(1s);
       }},
      {"Stop with 2,000 writes under way", write,
       [](Server&, const Core& core) {
         core->Stop();
         Pass(1s);
       }},
      {"forced expiry with 2,000 writes under way", write,
       [](Server&, const Core& core) {
         core->ForceExpire();
         Pass(1s);
       }},
      {"server killed, and started 3 s later", nothing,
       [](Server& server, const Core&) {
         server.Kill();
         Pass(3s);
         server.Start();
         Pass(2s);
       }},
      {"server frozen past its session", nothing,
       [](Server& server, const Core&) {
         server.Freeze();
         Pass(12s);
         server.Thaw();
         Pass(2s);
       }},
  };
}

/// How long the answer to one request takes, with nothing else under way.
void PrintTrip(const Core& core, const char* name, details::Request::Kind kind) {
  constexpr int trips = 200;
  std::vector<double> millis;
  for (int i = 0; i < trips; ++i) {
    const auto took = std::make_shared<std::atomic<double>>(-1);
    core->Post([core, took, kind, sent = Clock::now()] {
      core->Submit({.kind = kind, .path = "/", .outsideChroot = true, .reply = [took, sent](details::Reply&) {
                      *took = Millis(Clock::now() - sent).count();
                    }});
    });
    Require(testing::Poll(kLimit, [&] { return took->load() >= 0; }), "no answer");
    millis.push_back(*took);
  }
  std::sort(millis.begin(), millis.end());
  fmt::print("{:54} {:10.2f} {:10.2f} {:10.2f}\n", name, millis[trips / 2], millis[trips * 99 / 100],
             millis.back());
}

void Run() {
  constexpr double limit = 10;
  fmt::print("{:54} {:>10} {:>10} {:>10}\n", "a task waits for the connection's thread, ms", "p50", "p99",
             "longest");
  for (const auto& scene : Scenes()) {
    Server server;
    server.Start();
    const auto core = Connect(server);
    scene.prepare(server, core);
    Settle(core);
    Probe probe(core);
    scene.play(server, core);
    auto delays = probe.End();
    core->Stop();
    Require(core->AwaitClosed(kLimit), "not closed");
    std::sort(delays.begin(), delays.end());
    const auto at = [&delays](double share) {
      return delays[static_cast<std::size_t>(share * static_cast<double>(delays.size() - 1))];
    };
    fmt::print("{:54} {:10.2f} {:10.2f} {:10.2f}  <= {:.0f}{}\n", scene.name, at(0.5), at(0.99), at(1), limit,
               at(1) > limit ? "  OVER" : "");
    std::fflush(stdout);
  }
  Server server;
  server.Start();
  const auto core = Connect(server);
  PrintTrip(core, "a sync, for its answer", details::Request::Kind::Sync);
  PrintTrip(core, "a barrier, for its answer", details::Request::Kind::Barrier);
}

}  // namespace

}  // namespace zr::halden::bench

int main() try {
  zr::logging::SetMinimumLoggingLevel(zr::logging::ZRLOG_ERROR);  // servers are down and silent on purpose
  zr::halden::bench::Run();
  return 0;
} catch (const std::exception& e) {
  fmt::print(stderr, "bench: {}\n", e.what());
  return 1;
}
