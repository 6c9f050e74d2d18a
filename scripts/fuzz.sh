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
fuzz() { # fuzz TARGET
  local target=$1 room=halden/cpp/fuzz log="$folder/$1.log" input
  [[ "$target" == request ]] && room=halden/agent/fuzz
  mkdir "$folder/$target" # finds go to a copy: the repository's corpus is made by hand
  cp "$room/corpus/$target"/* "$folder/$target"
  if ! build/fuzz/$room/halden_fuzz_"$target" -max_total_time="$seconds" -timeout=10 \
    -artifact_prefix="$folder/$target." -print_final_stats=1 "$folder/$target" >"$log" 2>&1; then
    tail -n 60 "$log" >&2
    for input in "$folder/$target."{crash,leak,oom,slow-unit,timeout}-*; do
      [[ -f "$input" ]] || continue
      echo "fuzz: the input, $(stat --format=%s "$input") bytes:" >&2
      base64 "$input" >&2
    done
    echo "fuzz: $target failed" >&2
    return 1
  fi
  echo "fuzz: $target: $(sed -n 's/^stat::number_of_executed_units: //p' "$log") inputs in $seconds s, no fault"
}
export -f fuzz
export seconds folder
printf '%s\n' node config connect_string snapshot request |
  xargs --max-procs="$(nproc)" --replace bash -c 'fuzz {}'
