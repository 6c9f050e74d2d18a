// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <deque>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <sstream>
#include <stdexcept>

#include "halden/global_service_watcher.h"
#include "logger/sink.h"
#include "soak/data_center.h"
#include "support/await.h"

namespace zr::halden::soak {
namespace {

using namespace std::chrono_literals;
using test::TruthChecker;
using Clock = std::chrono::steady_clock;

constexpr int kStepsInRound = 12;
constexpr int kWarmUpRounds = 3;
constexpr std::size_t kLastSteps = 30;

/// Resident memory in MiB.
double Memory() {
  std::size_t pages = 0;
  std::size_t resident = 0;
  std::ifstream("/proc/self/statm") >> pages >> resident;
  return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1024.0 * 1024.0);
}

/// Lines at level error: the library's word for what must not happen.
struct ErrorLines {
  std::mutex mtx;
  std::vector<std::string> lines;  // guarded by mtx
};

/// A watcher over all data centres, and its checker.
struct GlobalView {
  std::shared_ptr<TruthChecker> checker;
  std::unique_ptr<GlobalServiceWatcher> watcher;

  std::shared_ptr<ServiceWatcher> Of(const zr::String& dcName) const {
    for (const auto& one : watcher->Watchers()) {
      if (one->DataCenterName() == dcName) return one;
    }
    throw std::runtime_error("no watcher of " + dcName);
  }
};

class Soak {
 public:
  explicit Soak(unsigned seed);

  void Run(std::chrono::minutes time);
  std::string LastSteps() const;
  std::string Summary() const;

 private:
  struct Verb {
    const char* name;
    std::function<void(DataCenter&)> act;
  };

  std::vector<Verb> Verbs();
  void Round();
  void Step();
  DataCenter& AnyDataCenter();
  void Note(const DataCenter& dc, const char* step);
  void Check();
  void Rest(int limitMs);

  void Kill(DataCenter& dc);
  void ToggleManaged(DataCenter& dc);
  void ToggleAdded(DataCenter& dc);

  Random m_random;
  const test::TemporaryFolder m_folder;
  const std::shared_ptr<ErrorLines> m_errors = std::make_shared<ErrorLines>();
  const std::shared_ptr<test::Ledger> m_ledger = std::make_shared<test::Ledger>();
  std::vector<std::unique_ptr<DataCenter>> m_dcs;
  std::map<zr::String, std::shared_ptr<Connection>> m_added;  // the application's own, by data centre
  GlobalView m_managed;
  GlobalView m_application;
  const std::vector<Verb> m_verbs = Verbs();
  std::deque<std::string> m_steps;
  int m_rounds = 0;
  int m_faults = 0;
  double m_warmMemory = 0;
};

Soak::Soak(unsigned seed) : m_random(seed) {
  zr::logging::SetHandler("stderr", [errors = m_errors](const zr::logging::LogRecord& record) {
    if (record.level < zr::logging::ZRLOG_ERROR) return;
    const std::lock_guard lock(errors->mtx);
    errors->lines.emplace_back(record.msg);
  });
  const std::string path = m_folder.Path() / "halden.toml";
  std::ofstream config(path);
  config << "[data_centers]\n";
  for (const auto& [name, servers] : {std::pair("eu-west", 1U), {"us-east", 1U}, {"ap-south", 3U}}) {
    m_dcs.push_back(std::make_unique<DataCenter>(name, servers, m_ledger, m_random));
    config << name << " = \"" << m_dcs.back()->ConnectString() << "\"\n";
    m_added[name] = m_dcs.back()->MakeConnection();
  }
  config.close();
  for (auto* view : {&m_managed, &m_application}) view->checker = std::make_shared<TruthChecker>(m_ledger);
  m_managed.watcher = std::make_unique<GlobalServiceWatcher>(DataCenter::kService, LibraryManaged{path});
  m_application.watcher = std::make_unique<GlobalServiceWatcher>(DataCenter::kService, ApplicationManaged());
  for (auto* view : {&m_managed, &m_application}) view->watcher->RegisterShared(view->checker);
  m_managed.watcher->StartManagedConnections();
  for (const auto& [name, conn] : m_added) m_application.watcher->AddConnection(conn);
}

std::vector<Soak::Verb> Soak::Verbs() {
  const auto any = [this](DataCenter& dc) -> Connection& {
    return Roll(m_random, 2) == 0 ? *m_added[dc.Name()] : dc.AnyConnection(m_random);
  };
  const auto expireManaged = [this](DataCenter& dc) {
    if (const auto conn = m_managed.watcher->GetConnection(dc.Name())) conn->ForceExpire();
  };
  const auto way = [this](DataCenter& dc) -> test::TcpProxy& { return dc.AnyWay(m_random); };
  const auto pause = [this](DataCenter& dc) {
    auto& server = dc.AnyServer(m_random);
    server.Pause();
    Rest(2500);
    server.Resume();
  };
  const auto delay = [this, way](DataCenter& dc) {
    way(dc).Delay(std::chrono::milliseconds(Roll(m_random, 80)));
  };
  const auto throttle = [this, way](DataCenter& dc) {
    way(dc).Throttle(static_cast<std::size_t>(1000 + Roll(m_random, 50'000)));
  };
  return {{"kill servers", [this](DataCenter& dc) { Kill(dc); }},
          {"pause a server", pause},
          {"cut", [way](DataCenter& dc) { way(dc).Cut(); }},
          {"refuse", [way](DataCenter& dc) { way(dc).Refuse(); }},
          {"delay", delay},
          {"throttle", throttle},
          {"half open", [way](DataCenter& dc) { way(dc).HalfOpen(); }},
          {"heal the network", &DataCenter::HealNetwork},
          {"heal the network", &DataCenter::HealNetwork},
          {"expire", [any](DataCenter& dc) { any(dc).ForceExpire(); }},
          {"expire the managed one", expireManaged},
          {"stop", [any](DataCenter& dc) { any(dc).Stop(); }},
          {"start", [any](DataCenter& dc) { any(dc).Start(nullptr); }},
          {"publish", [this](DataCenter& dc) { dc.Publish(m_random); }},
          {"unpublish", [this](DataCenter& dc) { dc.Unpublish(m_random); }},
          {"connect or disconnect", [this](DataCenter& dc) { ToggleManaged(dc); }},
          {"add or remove", [this](DataCenter& dc) { ToggleAdded(dc); }}};
}

void Soak::Kill(DataCenter& dc) {
  for (std::size_t i = 0, count = 1 + static_cast<std::size_t>(Roll(m_random, 3)); i < count; ++i) {
    dc.AnyServer(m_random).Kill();
  }
  Rest(800);
  dc.Ensemble().Start();
}

void Soak::ToggleManaged(DataCenter& dc) {
  if (m_managed.watcher->DisconnectDC(dc.Name())) return;
  m_managed.checker->StartOver(dc.Name());
  m_managed.watcher->ConnectDC(dc.Name());
}

void Soak::ToggleAdded(DataCenter& dc) {
  const auto& conn = m_added[dc.Name()];
  if (!m_application.watcher->HasConnection(dc.Name())) return m_application.watcher->AddConnection(conn);
  const std::weak_ptr<ServiceWatcher> watcher = m_application.Of(dc.Name());
  m_application.watcher->RemoveConnection(conn);
  // The one event that may be running keeps it alive.
  if (!test::Poll(test::kLimit, [&] { return watcher.expired(); })) {
    throw std::runtime_error(dc.Name() + ": a removed connection's watcher lives on");
  }
  m_application.checker->StartOver(dc.Name());
}

void Soak::Rest(int limitMs) {
  const auto until = Clock::now() + std::chrono::milliseconds(Roll(m_random, limitMs));
  test::Poll(10s, [&] { return Clock::now() >= until; });
}

DataCenter& Soak::AnyDataCenter() {
  return *m_dcs.at(static_cast<std::size_t>(Roll(m_random, static_cast<int>(m_dcs.size()))));
}

void Soak::Note(const DataCenter& dc, const char* step) {
  m_steps.push_back("round " + std::to_string(m_rounds) + ", " + dc.Name() + ": " + step);
  if (m_steps.size() > kLastSteps) m_steps.pop_front();
  ++m_faults;
}

void Soak::Step() {
  auto& dc = AnyDataCenter();
  const auto& verb = m_verbs.at(static_cast<std::size_t>(Roll(m_random, static_cast<int>(m_verbs.size()))));
  Note(dc, verb.name);
  verb.act(dc);
  Rest(400);
}

void Soak::Round() {
  ++m_rounds;
  if (auto& dc = AnyDataCenter(); Roll(m_random, 4) == 0) {
    Note(dc, "lose all data");
    dc.LoseData();
  }
  for (const auto& dc : m_dcs) dc->BeginWrites(m_random);
  for (int i = 0; i < kStepsInRound; ++i) Step();
  Check();
  m_ledger->Settle();
  if (m_rounds == kWarmUpRounds) m_warmMemory = Memory();
}

/// Heals everything, and holds every view against the truth.
void Soak::Check() {
  for (const auto& dc : m_dcs) dc->HealNetwork();
  for (const auto& dc : m_dcs) dc->EndWrites();
  for (const auto& dc : m_dcs) {
    if (!m_managed.watcher->HasConnection(dc->Name())) ToggleManaged(*dc);
    if (!m_application.watcher->HasConnection(dc->Name())) ToggleAdded(*dc);
    m_added[dc->Name()]->Start(nullptr);
    dc->Heal();
  }
  for (const auto& dc : m_dcs) {
    dc->RequireTruth();
    for (const auto* view : {&m_managed, &m_application}) dc->Require(*view->checker, *view->Of(dc->Name()));
  }
  const std::lock_guard lock(m_errors->mtx);
  if (!m_errors->lines.empty()) throw std::runtime_error("logged as an error: " + m_errors->lines.front());
}

void Soak::Run(std::chrono::minutes time) {
  const auto begin = Clock::now();
  auto reported = begin;
  while (Clock::now() - begin < time) {
    Round();
    if (Clock::now() - reported < 10s) continue;
    reported = Clock::now();
    std::cout << std::chrono::duration_cast<std::chrono::seconds>(reported - begin).count()
              << " s: " << Summary() << std::endl;
  }
}

std::string Soak::Summary() const {
  std::uint64_t events = m_managed.checker->Events() + m_application.checker->Events();
  for (const auto& dc : m_dcs) events += dc->Checker().Events();
  std::ostringstream out;
  out.precision(1);
  out << std::fixed << m_rounds << " rounds, " << m_faults << " faults, " << events << " events, " << Memory()
      << " MiB (" << m_warmMemory << " after " << kWarmUpRounds << " rounds)";
  return out.str();
}

std::string Soak::LastSteps() const {
  std::string text;
  for (const auto& step : m_steps) text += "  " + step + "\n";
  return text;
}

int Main(int argc, char** argv) {
  unsigned seed = std::random_device()();
  int minutes = 1;
  CLI::App app("Random faults against real servers, with everything checked after each round.");
  app.add_option("--minutes", minutes, "how long")->check(CLI::PositiveNumber);
  app.add_option("--seed", seed, "repeats a run, as far as the machine allows");
  CLI11_PARSE(app, argc, argv);
  std::cout << "seed " << seed << std::endl;
  Soak soak(seed);
  try {
    soak.Run(std::chrono::minutes(minutes));
  } catch (const std::exception& e) {
    std::cout << "soak failed, seed " << seed << ": " << e.what() << "\nafter these steps:\n"
              << soak.LastSteps() << std::flush;
    _exit(1);  // threads may be stuck
  }
  std::cout << "soak passed: " << soak.Summary() << std::endl;
  return 0;
}

}  // namespace
}  // namespace zr::halden::soak

int main(int argc, char** argv) {
  return zr::halden::soak::Main(argc, argv);
}
