// Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#include <benchmark/benchmark.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>

#include <string>

#include "logger/logger.h"
#include "logger/sink.h"
#include "model/instance_table.h"
#include "model/node_codec.h"

namespace zr::halden::bench {

namespace {

using zr::messaging::halden::ServiceInstanceData;

const zr::logging::ConstSourcePtr g_log = zr::logging::MakeSource("bench");

void SuppressedStatement(benchmark::State& state) {
  zr::logging::SetMinimumLoggingLevel(zr::logging::ZRLOG_WARNING);
  int value = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(++value);
    ZRLOG(ZRLOG_DEBUG, g_log) << "connected, value=" << value;
  }
}
BENCHMARK(SuppressedStatement);

void SuppressedSpdlogStatement(benchmark::State& state) {
  spdlog::logger logger("bench", std::make_shared<spdlog::sinks::null_sink_mt>());
  logger.set_level(spdlog::level::warn);
  int value = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(++value);
    SPDLOG_LOGGER_CALL(&logger, spdlog::level::debug, "connected, value={}", value);
  }
}
BENCHMARK(SuppressedSpdlogStatement);

void EmittedStatement(benchmark::State& state) {
  zr::logging::SetMinimumLoggingLevel(zr::logging::ZRLOG_WARNING);
  zr::logging::RemoveHandler("stderr");
  int value = 0;
  for (auto _ : state) ZRLOG(ZRLOG_WARNING, g_log) << "connected, value=" << ++value;
}
BENCHMARK(EmittedStatement);

void DecodeNode(benchmark::State& state) {
  ServiceInstanceData data;
  data.set_service_name("orders");
  data.set_host("orders-17.example");
  data.add_ports()->set_port(8080);
  auto* attribute = data.add_attributes();
  attribute->set_key("note");
  attribute->set_value(std::string(static_cast<std::size_t>(state.range(0)), 'x'));
  const std::string bytes = details::EncodeNode(data, {});
  for (auto _ : state) benchmark::DoNotOptimize(details::DecodeNode(bytes));
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes.size()));
}
BENCHMARK(DecodeNode)->Arg(20)->Arg(2000);

void ListInstances(benchmark::State& state) {
  details::InstanceTable table;
  const std::string data(200, 'x');
  for (std::int64_t i = 1; i <= state.range(0); ++i) table.Put(MakeServiceId(), {i, i}, data, false);
  for (auto _ : state) benchmark::DoNotOptimize(table.List());
}
BENCHMARK(ListInstances)->Arg(1000)->Arg(10000)->Arg(100000);

}  // namespace

}  // namespace zr::halden::bench

BENCHMARK_MAIN();
