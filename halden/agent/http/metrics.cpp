// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include "agent/http/metrics.h"

#include <prometheus/metric_family.h>
#include <prometheus/text_serializer.h>

#include <algorithm>
#include <initializer_list>
#include <limits>
#include <vector>

namespace zr::halden::agent {

namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;
using Labels = std::vector<ClientMetric::Label>;

/// Metrics of one name.
class Family {
 public:
  Family(const std::string& name, std::string help, MetricType type) {
    m_family.name = "halden_" + name;
    m_family.help = std::move(help);
    m_family.type = type;
  }
  void Add(Labels labels, double value) {
    ClientMetric metric;
    metric.label = std::move(labels);
    (m_family.type == MetricType::Counter ? metric.counter.value : metric.gauge.value) = value;
    Add(std::move(metric));
  }
  void Add(ClientMetric metric) { m_family.metric.push_back(std::move(metric)); }
  const MetricFamily& Get() const { return m_family; }

 private:
  MetricFamily m_family;
};

void Append(std::vector<MetricFamily>& families, std::initializer_list<const Family*> added) {
  for (const Family* family : added) families.push_back(family->Get());
}

double Seconds(std::chrono::system_clock::time_point time) {
  return std::chrono::duration<double>(time.time_since_epoch()).count();
}

void AddServices(std::vector<MetricFamily>& families, const ServiceViews& views) {
  Family instances("instances", "Instances known, those held included.", MetricType::Gauge);
  Family held("instances_held", "Instances whose removal is held back.", MetricType::Gauge);
  Family quarantined("instances_quarantined", "Nodes whose payload does not decode.", MetricType::Gauge);
  Family freshness("freshness", "1 for the freshness that the data centre has.", MetricType::Gauge);
  Family staleSince("stale_since_timestamp_seconds", "Since when it is stale.", MetricType::Gauge);
  Family resyncs("resyncs_total", "Complete reads of everything.", MetricType::Counter);
  Family drifts("drifts_total", "Changes whose event was lost, found by the audit.", MetricType::Counter);
  Family unwritten("snapshot_errors_total", "Times that a snapshot file could not be written.",
                   MetricType::Counter);
  for (const auto& [service, view] : views) {
    for (const auto& [dataCenter, status] : view->States()) {
      const Labels labels{{"service", service}, {"data_center", dataCenter}};
      const auto& watcher = status.watcher;
      instances.Add(labels, static_cast<double>(watcher.instances));
      held.Add(labels, static_cast<double>(watcher.held));
      quarantined.Add(labels, static_cast<double>(watcher.quarantined));
      resyncs.Add(labels, static_cast<double>(watcher.resyncs));
      drifts.Add(labels, static_cast<double>(watcher.drifts));
      unwritten.Add(labels, static_cast<double>(watcher.snapshotErrors));
      for (const auto one :
           {Freshness::NeverSynchronized, Freshness::Restored, Freshness::Live, Freshness::Stale}) {
        Labels more = labels;
        more.push_back({"freshness", std::string(halden::ToString(one))});
        freshness.Add(std::move(more), one == watcher.freshness ? 1 : 0);
      }
      if (watcher.staleSince) staleSince.Add(labels, Seconds(*watcher.staleSince));
    }
  }
  Append(families, {&instances, &held, &quarantined, &freshness, &staleSince, &resyncs, &drifts, &unwritten});
}

/// Connections are shared by all services: any of them knows how one is doing.
void AddConnections(std::vector<MetricFamily>& families, const ServiceViews& views) {
  std::map<std::string, ConnectionStatus> connections;
  for (const auto& [service, view] : views) {
    for (const auto& [dataCenter, status] : view->States()) connections[dataCenter] = status.connection;
  }
  Family state("connection_state", "1 for the state that the connection is in.", MetricType::Gauge);
  Family sessions("sessions_total", "Sessions established.", MetricType::Counter);
  Family reconnects("reconnects_total", "Times that a session went on after a lost connection.",
                    MetricType::Counter);
  Family expiries("session_expiries_total", "Sessions lost to expiry.", MetricType::Counter);
  for (const auto& [dataCenter, status] : connections) {
    const Labels labels{{"data_center", dataCenter}};
    sessions.Add(labels, static_cast<double>(status.sessions));
    reconnects.Add(labels, static_cast<double>(status.reconnects));
    expiries.Add(labels, static_cast<double>(status.expiries));
    for (const auto one :
         {ConnectionState::Stopped, ConnectionState::Connecting, ConnectionState::Connected,
          ConnectionState::Suspended, ConnectionState::Expired, ConnectionState::AuthFailed}) {
      state.Add({{"data_center", dataCenter}, {"state", std::string(halden::ToString(one))}},
                one == status.state ? 1 : 0);
    }
  }
  Append(families, {&state, &sessions, &reconnects, &expiries});
}

void AddFiles(std::vector<MetricFamily>& families, const std::vector<FileMetrics>& all) {
  Family files("files_total", "Times that a file was to be brought up to date.", MetricType::Counter);
  Family failing("file_failing", "1 while the last try has failed.", MetricType::Gauge);
  for (const auto& file : all) {
    for (const auto& [result, count] : file.results) {
      files.Add({{"target", file.target}, {"result", std::string(result)}}, static_cast<double>(count));
    }
    failing.Add({{"target", file.target}}, file.failing ? 1 : 0);
  }
  Append(families, {&files, &failing});
}

}  // namespace

void HttpMetrics::CountDuration(std::string_view endpoint, std::chrono::steady_clock::duration duration) {
  const double seconds = std::chrono::duration<double>(duration).count();
  Durations& durations = m_durations[endpoint];
  const auto* const bucket = std::lower_bound(kBuckets.begin(), kBuckets.end(), seconds);
  ++durations.counts.at(static_cast<std::size_t>(bucket - kBuckets.begin()));
  durations.sum += seconds;
}

std::string MetricsText(const ServiceViews& views, const HttpMetrics& http) {
  std::vector<MetricFamily> families;
  Family build("build_info", "The version that runs.", MetricType::Gauge);
  build.Add({{"version", HALDEN_VERSION}}, 1);
  Append(families, {&build});
  AddServices(families, views);
  AddConnections(families, views);

  Family requests("http_requests_total", "Requests answered.", MetricType::Counter);
  for (const auto& [key, count] : http.m_requests) {
    requests.Add({{"endpoint", std::string(key.first)}, {"code", std::to_string(key.second)}},
                 static_cast<double>(count));
  }
  Family durations("http_request_duration_seconds", "From a request's header to its answer's last byte.",
                   MetricType::Histogram);
  for (const auto& [endpoint, taken] : http.m_durations) {
    ClientMetric metric;
    metric.label = {{"endpoint", std::string(endpoint)}};
    std::uint64_t below = 0;
    for (std::size_t i = 0; i < taken.counts.size(); ++i) {
      below += taken.counts.at(i);
      const bool last = i == HttpMetrics::kBuckets.size();
      metric.histogram.bucket.push_back(
          {below, last ? std::numeric_limits<double>::infinity() : HttpMetrics::kBuckets.at(i)});
    }
    metric.histogram.sample_count = below;
    metric.histogram.sample_sum = taken.sum;
    durations.Add(std::move(metric));
  }
  Family connections("http_connections", "Connections of clients.", MetricType::Gauge);
  connections.Add({}, static_cast<double>(http.m_connections));
  Family rejected("http_rejected_total", "Connections and requests refused.", MetricType::Counter);
  for (const auto& [reason, count] : http.m_rejected) {
    rejected.Add({{"reason", std::string(reason)}}, static_cast<double>(count));
  }
  Append(families, {&requests, &durations, &connections, &rejected});
  AddFiles(families, http.m_files);
  return prometheus::TextSerializer().Serialize(families);
}

}  // namespace zr::halden::agent
