// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
//
// Whole-system measurements on real servers, in parts: all of them, or the one that is named.
#include <fmt/format.h>

#include <exception>
#include <string_view>

#include "bench.h"
#include "logger/sink.h"

namespace zr::halden::bench {

namespace {

struct Part {
  std::string_view name;
  void (*run)();
};

constexpr Part kParts[] = {{"load", &BenchLoad},         {"latency", &BenchLatency},
                           {"burst", &BenchBurst},       {"scale", &BenchScale},
                           {"services", &BenchServices}, {"calls", &BenchCalls},
                           {"upkeep", &BenchUpkeep},     {"wan", &BenchWan},
                           {"narrow", &BenchNarrow},     {"snapshot", &BenchSnapshot}};

int Run(std::string_view wanted) try {
  zr::logging::SetMinimumLoggingLevel(zr::logging::ZRLOG_ERROR);  // servers are down and silent on purpose
  bool found = false;
  for (const auto& part : kParts) {
    if (!wanted.empty() && wanted != part.name) continue;
    if (!found) PrintHeading();
    found = true;
    part.run();
  }
  if (!found)
    fmt::print(
        stderr,
        "bench: no part {}: load, latency, burst, scale, services, calls, upkeep, wan, narrow, snapshot\n",
        wanted);
  return found ? 0 : 2;
} catch (const std::exception& e) {
  fmt::print(stderr, "bench: {}\n", e.what());
  return 1;
}

}  // namespace

}  // namespace zr::halden::bench

int main(int argc, char** argv) {
  return zr::halden::bench::Run(argc > 1 ? argv[1] : "");
}
