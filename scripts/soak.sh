#!/usr/bin/env bash
# Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#
# Random faults against real servers for as long as you like, everything checked after each round.
#
#   scripts/soak.sh [--minutes N] [--seed S] [--tsan|--asan]
#
# Without a seed a new one is drawn; it is the first line of the output and repeats the run.
set -euo pipefail
cd "$(dirname "$0")/.."

preset=dev
arguments=()
for argument in "$@"; do
  case "$argument" in
    --asan) preset=asan ;;
    --tsan) preset=tsan ;;
    *) arguments+=("$argument") ;;
  esac
done

scripts/setup.sh
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" --target halden_soak
suppressions=halden/cpp/test
export ASAN_OPTIONS="detect_stack_use_after_return=1:strict_init_order=1"
export LSAN_OPTIONS="suppressions=$suppressions/lsan.supp:print_suppressions=0"
export TSAN_OPTIONS="suppressions=$suppressions/tsan.supp:second_deadlock_stack=1"
export UBSAN_OPTIONS="print_stacktrace=1"
exec "build/$preset/halden/cpp/test/halden_soak" "${arguments[@]}"
