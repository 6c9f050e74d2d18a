// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agent/view/service_views.h"

namespace zr::halden::agent {

/// Of a file that follows services.
struct FileMetrics {
  std::string target;
  std::map<std::string_view, std::uint64_t> results;  ///< how often each has come; names are literals
  bool failing = false;
};

/// What the agent counts of its own clients and files, for /metrics. Threads: the loop's.
class HttpMetrics {
 public:
  /// Seconds that an answer may take to be made and sent, each the upper end of a bucket.
  static constexpr std::array<double, 10> kBuckets{0.0005, 0.001, 0.0025, 0.005, 0.01, 0.05, 0.1, 0.5, 1, 5};

  void CountRequest(std::string_view endpoint, unsigned status) { ++m_requests[{endpoint, status}]; }
  void CountDuration(std::string_view endpoint, std::chrono::steady_clock::duration duration);
  void CountRejected(std::string_view reason) { ++m_rejected[reason]; }
  void SetConnections(std::size_t open) { m_connections = open; }
  void SetFiles(std::vector<FileMetrics> files) { m_files = std::move(files); }

 private:
  friend std::string MetricsText(const ServiceViews& views, const HttpMetrics& http);

  struct Durations {
    std::array<std::uint64_t, kBuckets.size() + 1> counts{};
    double sum = 0;
  };
  std::map<std::pair<std::string_view, unsigned>, std::uint64_t> m_requests;  // names are literals
  std::map<std::string_view, Durations> m_durations;
  // From the start on, so that the first is seen to come.
  std::map<std::string_view, std::uint64_t> m_rejected{{"connections", 0},  {"listeners", 0},
                                                       {"slow_request", 0}, {"slow_reader", 0},
                                                       {"long_header", 0},  {"bad_request", 0}};
  std::size_t m_connections = 0;
  std::vector<FileMetrics> m_files;
};

/// All metrics, as Prometheus reads them.
std::string MetricsText(const ServiceViews& views, const HttpMetrics& http);

}  // namespace zr::halden::agent
