// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "agent/view/service_views.h"

namespace zr::halden::agent {

/// What the agent counts of its own clients, for /metrics. Threads: the loop's.
class HttpMetrics {
 public:
  /// Seconds that an answer may take to be made and sent, each the upper end of a bucket.
  static constexpr std::array<double, 10> kBuckets{0.0005, 0.001, 0.0025, 0.005, 0.01, 0.05, 0.1, 0.5, 1, 5};

  void CountRequest(std::string_view endpoint, unsigned status) { ++m_requests[{endpoint, status}]; }
  void CountDuration(std::string_view endpoint, std::chrono::steady_clock::duration duration);
  void CountRejected(std::string_view reason) { ++m_rejected[reason]; }
  void SetConnections(std::size_t open) { m_connections = open; }

 private:
  friend std::string MetricsText(const ServiceViews& views, const HttpMetrics& http);

  struct Durations {
    std::array<std::uint64_t, kBuckets.size() + 1> counts{};
    double sum = 0;
  };
  std::map<std::pair<std::string_view, unsigned>, std::uint64_t> m_requests;  // names are literals
  std::map<std::string_view, Durations> m_durations;
  std::map<std::string_view, std::uint64_t> m_rejected;
  std::size_t m_connections = 0;
};

/// All metrics, as Prometheus reads them.
std::string MetricsText(const ServiceViews& views, const HttpMetrics& http);

}  // namespace zr::halden::agent
