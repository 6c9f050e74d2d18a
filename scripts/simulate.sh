#!/usr/bin/env bash
# Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#
# Plays whole data centres in one thread and virtual time, with faults; a seed decides everything.
#
#   scripts/simulate.sh --seeds N                fresh seeds, from the clock; it prints them
#   scripts/simulate.sh --seeds 1 --seed FIRST   one again; with --trace 200 for more of what happened
#   scripts/simulate.sh --asan ...               under AddressSanitizer and UndefinedBehaviorSanitizer
#   scripts/simulate.sh --tsan ...               under ThreadSanitizer
#
# Ends with the line "N seeds, M failed", and with 1 when M is not 0. --help shows more.
set -euo pipefail
cd "$(dirname "$0")/.."

preset=dev
case "${1:-}" in
  --asan) preset=asan; shift ;;
  --tsan) preset=tsan; shift ;;
esac

scripts/setup.sh
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" --target halden_simulation >/dev/null
ASAN_OPTIONS=detect_stack_use_after_return=1:strict_init_order=1 \
  exec "build/$preset/halden/cpp/test/halden_simulation" "$@"
