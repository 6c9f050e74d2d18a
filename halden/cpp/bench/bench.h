// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "halden/connection_v2.h"
#include "halden/service_watcher.h"
#include "halden/testing/zookeeper_server.h"

/// What the measurements share. Each measures halden beside its yardsticks, the two builds of the client library
/// alone (RawReader), in rounds that take turns, so that whatever else the machine does falls on all.
namespace zr::halden::bench {

using Clock = std::chrono::steady_clock;
using Millis = std::chrono::duration<double, std::milli>;
using Micros = std::chrono::duration<double, std::micro>;

inline constexpr int kRounds = 5;
inline constexpr std::chrono::seconds kLimit{60};
inline constexpr std::size_t kPerDataCenter = 10'000;
inline constexpr std::array<const char*, 3> kDataCenters{"eu-west", "us-east", "ap-south"};
inline constexpr const char* kService = "orders";

/// Whose figure it is: the client library's alone, on the build with threads or on the one without, or ours.
enum Side : std::uint8_t { kThreaded, kSingle, kHalden };
inline constexpr std::array kSides{kThreaded, kSingle, kHalden};
inline constexpr std::array kBareSides{kThreaded, kSingle};
template <typename T>
using Sides = std::array<T, kSides.size()>;
using Samples = Sides<std::vector<double>>;

// The parts, one file each.
void BenchLoad();
void BenchLatency();
void BenchBurst();
void BenchScale();
void BenchServices();
void BenchCalls();
void BenchUpkeep();
void BenchWan();
void BenchNarrow();
void BenchSnapshot();

void Require(bool condition, const char* what);
double Median(std::vector<double> values);
double Percentile(std::vector<double> values, double share);
Sides<double> Medians(const Samples& samples);

/// Runs `call` and says how long it took.
template <typename Duration, typename Call>
double Time(const Call& call) {
  const auto start = Clock::now();
  call();
  return Duration(Clock::now() - start).count();
}

/// What this process has used of the processors so far, its servers not included.
Millis CpuTime();
double ResidentBytes();

// The table. A limit that is passed is marked.

/// The most that halden may need, in the line's unit or in proportion to the client library's build with threads.
struct Limit {
  enum Of : std::uint8_t { kFigure, kRatio };
  Of of;
  double most;
};

void PrintHeading();
/// All sides, and the ratio that a limit is about. No limit: it is not judged.
void PrintSides(const std::string& what, const char* unit, const Sides<double>& values,
                std::optional<Limit> limit = std::nullopt);
/// Only what halden needs.
void PrintFigure(const std::string& what, const char* unit, double halden,
                 std::optional<double> limit = std::nullopt);

/// The bytes of an instance's node, with about `bytes` of data that does not compress.
std::string NodeBytes(std::size_t bytes);

using Server = testing::ZooKeeperServer;
using Servers = std::vector<std::unique_ptr<Server>>;

Servers StartServers(std::size_t count, const char* heap = "64m");
/// Cuts this process's connections to the server; the server runs on.
void DropConnections(const Server& server);
/// Creates so many instances of the service and returns their paths.
std::vector<std::string> Populate(const Server& server, const zr::String& service, std::size_t instances);

/// What a follower has heard, and when the last of it came.
class Tally {
 public:
  enum Kind : std::uint8_t { kAdded, kModified, kRemoved };
  using Counts = std::array<std::size_t, 3>;

  void Count(Kind kind);
  /// Waits until at least so many of each kind have come; when the last of them did.
  Clock::time_point Await(const Counts& wanted);
  Counts Heard() const;

 private:
  bool Reached() const;

  mutable std::mutex m_mtx;  // guards all below
  std::condition_variable m_reached;
  Counts m_counts{};
  Counts m_wanted{};
  Clock::time_point m_last;
};

class TallyObserver : public ServiceWatcherObserver {
 public:
  explicit TallyObserver(Tally& tally) : m_tally(tally) {}
  void OnInstanceAdded(ServiceWatcher&, const ServiceId&, const ServiceInstanceData&) override {
    m_tally.Count(Tally::kAdded);
  }
  void OnInstanceModified(ServiceWatcher&, const ServiceId&, const ServiceInstanceData&) override {
    m_tally.Count(Tally::kModified);
  }
  void OnInstanceRemoved(ServiceWatcher&, const ServiceId&) override { m_tally.Count(Tally::kRemoved); }

 private:
  Tally& m_tally;
};

std::shared_ptr<Connection> MakeConnection(const zr::String& hosts, const zr::String& dcName = "bench");

/// One service at one ensemble, followed by the library; the session is closed with it.
class HaldenFollower {
 public:
  HaldenFollower(const std::string& hosts, Tally& tally, const zr::String& service = kService);
  ~HaldenFollower();

  HaldenFollower(const HaldenFollower&) = delete;
  HaldenFollower& operator=(const HaldenFollower&) = delete;

  Connection& Conn() { return *m_conn; }
  const std::shared_ptr<Connection>& SharedConn() { return m_conn; }
  ServiceWatcher& Watcher() { return *m_watcher; }

 private:
  const std::shared_ptr<TallyObserver> m_observer;
  const std::shared_ptr<Connection> m_conn;
  const std::shared_ptr<ServiceWatcher> m_watcher;
};

/// Begins to follow kService at the server and tells the tally, until what it returns goes.
std::shared_ptr<void> Follow(Side side, const std::string& hosts, Tally& tally);

}  // namespace zr::halden::bench
