#!/usr/bin/env bash
# Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#
# Builds halden in release and measures it, on real servers, beside its yardsticks.
#
#   scripts/bench.sh [INSTANCES]   instances per data centre, 10000 unless told
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release --target halden_system_bench halden_micro_bench
build/release/halden/cpp/bench/halden_system_bench "$@"
build/release/halden/cpp/bench/halden_micro_bench --benchmark_min_time=0.2
