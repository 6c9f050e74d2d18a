// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "bench.h"

#include <fmt/format.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "halden/testing/zookeeper_client.h"
#include "model/layout.h"
#include "raw_client.h"

namespace zr::halden::bench {

void Require(bool condition, const char* what) {
  if (!condition) throw std::runtime_error(what);
}

double Median(std::vector<double> values) {
  return Percentile(std::move(values), 0.5);
}

double Percentile(std::vector<double> values, double share) {
  std::sort(values.begin(), values.end());
  return values[std::min(values.size() - 1,
                         static_cast<std::size_t>(share * static_cast<double>(values.size())))];
}

Sides<double> Medians(const Samples& samples) {
  return {Median(samples[kThreaded]), Median(samples[kSingle]), Median(samples[kHalden])};
}

Millis CpuTime() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto millis = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
  };
  return Millis(millis(usage.ru_utime) + millis(usage.ru_stime));
}

namespace {

void PrintLine(const std::string& what, const Sides<std::string>& columns, const char* unit,
               const std::string& ratio, const std::string& limit) {
  fmt::print("{:54} {:>10} {:>10} {:>10} {:4} {:>6}  {}\n", what, columns[kThreaded], columns[kSingle],
             columns[kHalden], unit, ratio, limit);
  std::fflush(stdout);
}

std::string Figure(double value) {
  return fmt::format("{:.1f}", value);
}

std::string Judge(double value, double most, const char* unit = "") {
  return fmt::format("<= {:g}{}{}{}", most, *unit == 0 ? "" : " ", unit, value > most ? "  OVER" : "");
}

}  // namespace

void PrintHeading() {
  PrintLine("medians of rounds that take turns", {"threaded", "single", "halden"}, "", "ratio", "limit");
}

void PrintSides(const std::string& what, const char* unit, const Sides<double>& values,
                std::optional<Limit> limit) {
  const double ratio = values[kHalden] / values[kThreaded];
  std::string judged;
  if (limit && limit->of == Limit::kRatio) judged = Judge(ratio, limit->most);
  if (limit && limit->of == Limit::kFigure) judged = Judge(values[kHalden], limit->most, unit);
  PrintLine(what, {Figure(values[kThreaded]), Figure(values[kSingle]), Figure(values[kHalden])}, unit,
            fmt::format("{:.2f}", ratio), judged);
}

void PrintFigure(const std::string& what, const char* unit, double halden, std::optional<double> limit) {
  PrintLine(what, {"", "", Figure(halden)}, unit, "", limit ? Judge(halden, *limit, unit) : "");
}

double ResidentBytes() {
  std::ifstream statm("/proc/self/statm");
  double total = 0;
  double resident = 0;
  statm >> total >> resident;
  return resident * static_cast<double>(sysconf(_SC_PAGESIZE));
}

void DropConnections(const Server& server) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    const int descriptor = std::atoi(entry.path().filename().c_str());
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    if (getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &length) != 0) continue;
    if (peer.sin_family == AF_INET && ntohs(peer.sin_port) == server.Port()) shutdown(descriptor, SHUT_RDWR);
  }
}

std::string NodeBytes(std::size_t bytes) {
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
    filler.push_back(static_cast<char>('!' + (random >> 16U) % 90));
  }
  attribute->set_value(filler);
  return testing::EncodeInstance(data);
}

Servers StartServers(std::size_t count, const char* heap) {
  testing::ZooKeeperServerOptions options;
  options.tickTime = std::chrono::milliseconds(2000);
  options.heap = heap;
  // With workers of its own the server, not the client, is what a load of this kind measures on two cores.
  options.properties = {"zookeeper.nio.numWorkerThreads=0"};
  Servers servers;
  for (std::size_t i = 0; i < count; ++i) {
    servers.push_back(std::make_unique<Server>(options));
    servers.back()->Launch();
  }
  for (const auto& server : servers) server->Start();
  return servers;
}

std::vector<std::string> Populate(const Server& server, const zr::String& service, std::size_t instances) {
  const std::string bytes = NodeBytes(200);
  const zr::String servicePath = details::ServicePath(service);
  RawWriter writer(server.ConnectString());
  for (const auto& parent : {zr::String("/halden"), zr::String(details::kServicesPath), servicePath}) {
    writer.Create(parent, {});
  }
  const bool inAllPartitions = instances >= details::kPartitions;
  for (std::size_t i = 0; inAllPartitions && i < details::kPartitions; ++i) {
    writer.Create(details::PartitionPath(servicePath, static_cast<std::uint8_t>(i)), {});
  }
  std::vector<std::string> paths;
  for (std::size_t i = 0; i < instances; ++i) {
    const ServiceId id = MakeServiceId();
    if (!inAllPartitions) writer.Create(details::PartitionPath(servicePath, details::PartitionOf(id)), {});
    paths.push_back(details::InstancePath(servicePath, id));
    writer.Create(paths.back(), bytes);
  }
  writer.Finish();
  return paths;
}

void Tally::Count(Kind kind) {
  const auto now = Clock::now();
  const std::lock_guard lock(m_mtx);
  ++m_counts[kind];
  m_last = now;
  if (Reached()) m_reached.notify_one();
}

Clock::time_point Tally::Await(const Counts& wanted) {
  std::unique_lock lock(m_mtx);
  m_wanted = wanted;
  Require(m_reached.wait_for(lock, kLimit, [this] { return Reached(); }), "not every change was told");
  return m_last;
}

Tally::Counts Tally::Heard() const {
  const std::lock_guard lock(m_mtx);
  return m_counts;
}

bool Tally::Reached() const {
  for (std::size_t i = 0; i < m_counts.size(); ++i) {
    if (m_counts[i] < m_wanted[i]) return false;
  }
  return true;
}

std::shared_ptr<Connection> MakeConnection(const zr::String& hosts, const zr::String& dcName) {
  return std::make_shared<Connection>(std::vector<zr::String>{hosts}, true, zr::String(),
                                      std::chrono::seconds(30), dcName);
}

HaldenFollower::HaldenFollower(const std::string& hosts, Tally& tally, const zr::String& service)
    : m_observer(std::make_shared<TallyObserver>(tally)),
      m_conn(MakeConnection(hosts)),
      m_watcher(std::make_shared<ServiceWatcher>(m_conn, service, nullptr)) {
  m_watcher->RegisterShared(m_observer);
  m_watcher->Start();
  m_conn->Start(nullptr);
}

HaldenFollower::~HaldenFollower() {
  m_conn->Stop();
  m_conn->AwaitClosed(kLimit);
  m_watcher->UnregisterShared(m_observer);  // returns when no callback runs
}

std::shared_ptr<void> Follow(Side side, const std::string& hosts, Tally& tally) {
  if (side == kHalden) return std::make_shared<HaldenFollower>(hosts, tally);
  auto reader = std::make_shared<RawReader>(side, hosts, &tally);
  reader->Begin({details::ServicePath(kService)});
  return reader;
}

}  // namespace zr::halden::bench
