#!/usr/bin/env bash
# Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#
# Builds the fuzz targets with clang and runs each for a while, beginning with the corpus in the repository. Fails on
# a crash, a sanitizer's report or an input that takes too long, and shows that input.
#
#   scripts/fuzz.sh [SECONDS]   for each target, 20 unless told
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-20}
[[ "$seconds" =~ ^[1-9][0-9]*$ ]] || { echo "fuzz: not a number of seconds: $seconds" >&2; exit 2; }
scripts/setup.sh --clang
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz

folder=$(mktemp -d "${TMPDIR:-/tmp}/halden-fuzz-XXXXXX")
trap 'rm -rf "$folder"' EXIT
for target in node config connect_string snapshot request; do
  room=halden/cpp/fuzz corpus=halden/cpp/fuzz/corpus/$target
  if [[ "$target" == request ]]; then room=halden/agent/fuzz corpus=halden/agent/fuzz/corpus; fi
  mkdir "$folder/$target" # finds go to a copy: the repository's corpus is made by hand
  cp "$corpus"/* "$folder/$target"
  if ! build/fuzz/$room/halden_fuzz_"$target" -max_total_time="$seconds" -timeout=10 \
    -artifact_prefix="$folder/" -print_final_stats=1 "$folder/$target" >"$folder/log" 2>&1; then
    tail -n 60 "$folder/log" >&2
    for input in "$folder"/{crash,leak,oom,slow-unit,timeout}-*; do
      [[ -f "$input" ]] || continue
      echo "fuzz: the input, $(stat --format=%s "$input") bytes:" >&2
      base64 "$input" >&2
    done
    echo "fuzz: $target failed" >&2
    exit 1
  fi
  runs=$(sed -n 's/^stat::number_of_executed_units: //p' "$folder/log")
  echo "fuzz: $target: $runs inputs in $seconds s, no fault"
done
