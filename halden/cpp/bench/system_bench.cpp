// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// Whole-system measurements on real servers, each beside its yardstick in the same run:
//   first load of three data centres, against the client library alone making the same requests;
//   the time that Connection::Start and Stop keep their caller, in every state.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "halden/connection_v2.h"
#include "halden/global_service_watcher.h"
#include "layout.h"
#include "logger/sink.h"
#include "raw_client.h"
#include "support/await.h"
#include "support/zookeeper_client.h"
#include "support/zookeeper_server.h"

namespace zr::halden::bench {

namespace {

using Clock = std::chrono::steady_clock;
using Millis = std::chrono::duration<double, std::milli>;

constexpr int kRounds = 5;
constexpr std::chrono::seconds kLimit{60};
constexpr std::array<const char*, 3> kDataCenters{"eu-west", "us-east", "ap-south"};
const zr::String kService = "orders";

/// An instance of about `bytes` bytes on the wire.
ServiceInstanceData MakeInstance(std::size_t bytes) {
  ServiceInstanceData data;
  data.set_service_name(kService);
  data.set_host("orders-17.example");
  auto* port = data.add_ports();
  port->set_name("http");
  port->set_port(8080);
  data.set_version("4.2.1");
  data.set_start_time_ms(1'700'000'000'000);
  auto* attribute = data.add_attributes();
  attribute->set_key("note");
  zr::String filler;
  for (unsigned random = 12345; data.ByteSizeLong() + filler.size() < bytes;
       random = random * 1103515245 + 12345) {
    filler.push_back(static_cast<char>('!' + (random >> 16U) % 90));  // nothing that compresses
  }
  attribute->set_value(filler);
  return data;
}

test::ZooKeeperServerOptions ServerOptions() {
  test::ZooKeeperServerOptions options;
  options.tickTime = std::chrono::milliseconds(2000);
  // With workers of its own the server, not the client, is what a load of this kind measures on two cores.
  options.properties = {"zookeeper.nio.numWorkerThreads=0"};
  return options;
}

class Counter : public ServiceWatcherObserver {
 public:
  void OnInstanceAdded(ServiceWatcher& /*watcher*/, const ServiceId& /*id*/,
                       const ServiceInstanceData& /*data*/) override {
    const std::lock_guard lock(m_mtx);
    ++m_added;
    m_changed.notify_all();
  }
  void OnInstanceRemoved(ServiceWatcher& /*watcher*/, const ServiceId& /*id*/) override {}
  void OnInstanceModified(ServiceWatcher& /*watcher*/, const ServiceId& /*id*/,
                          const ServiceInstanceData& /*data*/) override {}

  bool Await(std::size_t added) {
    std::unique_lock lock(m_mtx);
    return m_changed.wait_for(lock, kLimit, [this, added] { return m_added >= added; });
  }

 private:
  std::mutex m_mtx;
  std::condition_variable m_changed;
  std::size_t m_added = 0;  // guarded by m_mtx
};

void Require(bool condition, const char* what) {
  if (!condition) throw std::runtime_error(what);
}

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

double Percentile(std::vector<double> values, double share) {
  std::sort(values.begin(), values.end());
  return values[std::min(values.size() - 1,
                         static_cast<std::size_t>(share * static_cast<double>(values.size())))];
}

using Servers = std::vector<std::unique_ptr<test::ZooKeeperServer>>;

Servers StartServers() {
  Servers servers;
  for (std::size_t i = 0; i < kDataCenters.size(); ++i) {
    servers.push_back(std::make_unique<test::ZooKeeperServer>(ServerOptions()));
    servers.back()->Start();
  }
  return servers;
}

void Populate(const test::ZooKeeperServer& server, std::size_t instances) {
  const std::string bytes = test::EncodeInstance(MakeInstance(200));
  const zr::String service = details::ServicePath(kService);
  std::vector<RawClient::Node> nodes{{"/halden", {}}, {"/halden/services", {}}, {service, {}, ZOO_CONTAINER}};
  for (std::size_t i = 0; i < details::kPartitions; ++i) {
    nodes.push_back({details::PartitionPath(service, static_cast<std::uint8_t>(i)), {}, ZOO_CONTAINER});
  }
  for (std::size_t i = 0; i < instances; ++i) {
    nodes.push_back({details::InstancePath(service, MakeServiceId()), bytes});
  }
  RawClient client(server.ConnectString());
  client.Open();
  client.Create(nodes);
}

double RawLoad(const Servers& servers, std::size_t instances) {
  std::vector<std::unique_ptr<RawClient>> clients;
  const auto start = Clock::now();
  for (const auto& server : servers) {
    clients.push_back(std::make_unique<RawClient>(server->ConnectString()));
    clients.back()->BeginRead(details::ServicePath(kService));
  }
  std::size_t read = 0;
  for (const auto& client : clients) read += client->FinishRead();
  const Millis took = Clock::now() - start;
  Require(read == instances, "the raw client has not read every instance");
  return took.count();
}

struct LoadTimes {
  double known = 0;      // until queries are complete
  double announced = 0;  // until observers have been told of every instance
};

LoadTimes WatcherLoad(const zr::String& config, std::size_t instances) {
  GlobalServiceWatcher watcher(kService, LibraryManaged{config});
  const auto counter = std::make_shared<Counter>();
  watcher.RegisterShared(counter);
  const auto start = Clock::now();
  watcher.StartManagedConnections();
  Require(watcher.AwaitSynchronized(kLimit), "the watcher is not synchronised");
  const Millis known = Clock::now() - start;
  Require(counter->Await(instances), "not every instance was announced");
  const Millis announced = Clock::now() - start;
  Require(watcher.ListInstances().size() == instances, "the watcher does not know every instance");
  Require(watcher.Close(kLimit), "sessions not closed");
  return {known.count(), announced.count()};
}

void FirstLoad(const Servers& servers, std::size_t perDataCenter) {
  const test::TemporaryFolder folder;
  const zr::String config = folder.Path() / "halden.toml";
  {
    std::ofstream out(config);
    out << "[data_centers]\n";
    for (std::size_t i = 0; i < servers.size(); ++i) {
      out << kDataCenters[i] << " = \"" << servers[i]->ConnectString() << "\"\n";
    }
  }
  const std::size_t instances = servers.size() * perDataCenter;
  RawLoad(servers, instances);  // the servers' and our own first-time costs
  WatcherLoad(config, instances);
  std::vector<double> raw;
  std::vector<double> known;
  std::vector<double> announced;
  for (int round = 0; round < kRounds; ++round) {
    raw.push_back(RawLoad(servers, instances));
    const LoadTimes times = WatcherLoad(config, instances);
    known.push_back(times.known);
    announced.push_back(times.announced);
  }
  fmt::print("first load, {} x {} instances of 200 bytes, median of {}:\n", servers.size(), perDataCenter,
             kRounds);
  fmt::print("  raw client          {:8.1f} ms\n", Median(raw));
  fmt::print("  halden, known       {:8.1f} ms   ratio {:.2f}\n", Median(known), Median(known) / Median(raw));
  fmt::print("  halden, announced   {:8.1f} ms   ratio {:.2f}\n", Median(announced),
             Median(announced) / Median(raw));
}

std::shared_ptr<Connection> Connect(const zr::String& hosts) {
  return std::make_shared<Connection>(std::vector<zr::String>{hosts}, true, zr::String(),
                                      std::chrono::seconds(30), "bench");
}

template <typename Call>
double Micros(const Call& call) {
  const auto start = Clock::now();
  call();
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

void Report(const char* what, const std::vector<double>& micros) {
  fmt::print("  {:44} n={:4}  p50 {:7.1f} us   p99 {:7.1f} us   max {:7.1f} us\n", what, micros.size(),
             Percentile(micros, 0.5), Percentile(micros, 0.99), Percentile(micros, 1.0));
}

/// `arrive` brings a started connection into the state that it is to be stopped in.
template <typename Arrive>
void StartStop(const char* what, const zr::String& hosts, int times, const Arrive& arrive) {
  std::vector<double> starts;
  std::vector<double> stops;
  for (int i = 0; i < times; ++i) {
    const auto conn = Connect(hosts);
    starts.push_back(Micros([&] { conn->Start(nullptr); }));
    arrive(*conn);
    stops.push_back(Micros([&] { conn->Stop(); }));
    Require(conn->AwaitClosed(kLimit), "session not closed");
  }
  Report(fmt::format("Start, {}", what).c_str(), starts);
  Report(fmt::format("Stop,  {}", what).c_str(), stops);
}

void AwaitState(const Connection& conn, ConnectionState state) {
  Require(test::Poll(kLimit, [&] { return conn.Status().state == state; }), "state not reached");
}

void StartAndStop(test::ZooKeeperServer& server) {
  constexpr int kTimes = 300;
  constexpr int kSilentTimes = 100;
  fmt::print("time that Start and Stop keep their caller:\n");
  StartStop("connected", server.ConnectString(), kTimes,
            [](const Connection& conn) { AwaitState(conn, ConnectionState::Connected); });
  StartStop("at once after Start", server.ConnectString(), kTimes, [](const Connection&) {});
  StartStop("ensemble down", "127.0.0.1:1", kTimes,
            [](const Connection& conn) { AwaitState(conn, ConnectionState::Connecting); });
  StartStop("names that do not resolve", "nowhere.invalid:2181", kTimes,
            [](const Connection& conn) { AwaitState(conn, ConnectionState::Connecting); });
  StartStop("session being expired", server.ConnectString(), kSilentTimes, [](Connection& conn) {
    AwaitState(conn, ConnectionState::Connected);
    conn.ForceExpire();
  });

  std::vector<std::shared_ptr<Connection>> silent;
  for (int i = 0; i < kSilentTimes; ++i) {
    silent.push_back(Connect(server.ConnectString()));
    silent.back()->Start(nullptr);
  }
  for (const auto& conn : silent) AwaitState(*conn, ConnectionState::Connected);
  server.Pause();
  std::vector<double> stops;
  std::vector<double> starts;
  stops.reserve(silent.size());
  starts.reserve(silent.size());
  for (const auto& conn : silent) stops.push_back(Micros([&] { conn->Stop(); }));
  Report("Stop,  connected to a silent server", stops);
  for (const auto& conn : silent) starts.push_back(Micros([&] { conn->Start(nullptr); }));
  Report("Start, while the session is still being closed", starts);
  for (const auto& conn : silent) conn->Stop();
  server.Resume();
  for (const auto& conn : silent) Require(conn->AwaitClosed(kLimit), "session not closed");
}

}  // namespace

int Run(int argc, char** argv) try {
  zr::logging::SetMinimumLoggingLevel(zr::logging::ZRLOG_ERROR);  // servers are down and silent on purpose
  const auto perDataCenter = static_cast<std::size_t>(argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 10'000);
  const Servers servers = StartServers();
  for (const auto& server : servers) Populate(*server, perDataCenter);
  FirstLoad(servers, perDataCenter);
  StartAndStop(*servers.front());
  return 0;
} catch (const std::exception& e) {
  fmt::print(stderr, "bench: {}\n", e.what());
  return 1;
}

}  // namespace zr::halden::bench

int main(int argc, char** argv) {
  return zr::halden::bench::Run(argc, argv);
}
