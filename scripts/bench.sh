#!/usr/bin/env bash
# Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#
# Builds halden in release and measures it, on real servers, beside its yardsticks.
#
#   scripts/bench.sh          all parts but agent, some minutes
#   scripts/bench.sh PART     one: load, latency, burst, scale, services, calls, upkeep, wan, narrow, snapshot, loop,
#                             micro, agent
set -euo pipefail
cd "$(dirname "$0")/.."

part=${1:-}
scripts/setup.sh
if [[ "$part" == agent ]]; then scripts/setup.sh --bench; fi
cmake --preset release >/dev/null
if [[ "$part" == agent ]]; then # beside etcd and nginx
  cmake --build --preset release --target halden_agent_bench
  exec build/release/halden/agent/halden_agent_bench build/release/halden/tool/halden
fi
cmake --build --preset release --target halden_system_bench halden_loop_bench halden_micro_bench
if [[ "$part" != micro && "$part" != loop ]]; then build/release/halden/cpp/bench/halden_system_bench "$part"; fi
if [[ -z "$part" || "$part" == loop ]]; then build/release/halden/cpp/bench/halden_loop_bench; fi
if [[ -z "$part" || "$part" == micro ]]; then
  build/release/halden/cpp/bench/halden_micro_bench --benchmark_min_time=0.2
fi
