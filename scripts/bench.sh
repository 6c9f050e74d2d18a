#!/usr/bin/env bash
# Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#
# Builds halden in release and measures it, on real servers, beside its yardsticks.
#
#   scripts/bench.sh          all parts, some minutes
#   scripts/bench.sh PART     one: load, latency, burst, scale, services, calls, upkeep, wan, narrow, snapshot, loop,
#                             micro
set -euo pipefail
cd "$(dirname "$0")/.."

part=${1:-}
scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release --target halden_system_bench halden_loop_bench halden_micro_bench
if [[ "$part" != micro && "$part" != loop ]]; then build/release/halden/cpp/bench/halden_system_bench "$part"; fi
if [[ -z "$part" || "$part" == loop ]]; then build/release/halden/cpp/bench/halden_loop_bench; fi
if [[ -z "$part" || "$part" == micro ]]; then
  build/release/halden/cpp/bench/halden_micro_bench --benchmark_min_time=0.2
fi
