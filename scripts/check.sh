#!/usr/bin/env bash
# Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#
# Everything a change must pass: style, then the tests plain and under the sanitizers.
#
#   scripts/check.sh           all of it
#   scripts/check.sh --style   clang-format, clang-tidy, locks and the includes of the command's rooms only
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh --clang

echo "check: rooms of the command"
declare -A may_include=([io]="io" [render]="io|render" [ensemble]="io|render|ensemble" [cli]="io|render|cli"
  [commands]="io|render|ensemble|cli|commands")
for room in "${!may_include[@]}"; do
  if grep -rnE '#include "(io|render|ensemble|cli|commands)/' "halden/tool/$room" | grep -vE "\"(${may_include[$room]})/"; then
    echo "check: halden/tool/$room includes what is not below it" >&2
    exit 1
  fi
done

echo "check: clang-format"
git ls-files -z -- '*.h' '*.cpp' | xargs -0 clang-format --dry-run --Werror

echo "check: clang-tidy, which also proves that what a mutex guards is touched with it held"
cmake --preset tidy >/dev/null
cmake --build build/tidy --target halden_proto >/dev/null # the generated header
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! run-clang-tidy -p build/tidy -quiet -j "$(nproc)" -extra-arg=-Wthread-safety \
  '^(?!.*/(test|bench|fuzz)/).*/(halden|misc|zrstl)/.*\.cpp$' >"$log" 2>&1; then
  grep -E -A4 '(warning|error):' "$log" || tail -n 40 "$log"
  echo "check: clang-tidy failed" >&2
  exit 1
fi

[[ "${1:-}" == "--style" ]] && exit 0
scripts/test.sh
scripts/test.sh --asan
scripts/test.sh --tsan
