#!/usr/bin/env bash
# Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#
# Everything a change must pass: style, then the tests plain and under the sanitizers.
#
#   scripts/check.sh           all of it
#   scripts/check.sh --style   clang-format, clang-tidy, locks and the includes between rooms only
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh --clang

# Rooms in order: each may include those before it, and itself.
check_rooms() {
  local folder=$1 known room
  shift
  for room in "$@"; do
    known+="${known:+|}$room"
    if grep -rnE "#include \"($(tr ' ' '|' <<<"$*"))/" "$folder/$room" | grep -vE "\"($known)/"; then
      echo "check: $folder/$room includes a room that comes after it" >&2
      exit 1
    fi
  done
}
echo "check: rooms"
check_rooms halden/cpp/source base model config client session watch publish snapshot
check_rooms halden/tool io render ensemble cli commands
check_rooms halden agent/view agent/follow agent/http agent/render agent/page agent/serve

echo "check: clang-format"
git ls-files -z -- '*.h' '*.cpp' | xargs -0 clang-format --dry-run --Werror

echo "check: clang-tidy, which also proves that what a mutex guards is touched with it held"
cmake --preset tidy >/dev/null
cmake --build build/tidy --target halden_proto >/dev/null # the generated header
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! run-clang-tidy -p build/tidy -quiet -j "$(nproc)" -extra-arg=-Wthread-safety \
  '^(?!.*/(test|bench|fuzz)/)(?!'"$PWD"'/build/).*/(halden|misc|zrstl)/.*\.cpp$' >"$log" 2>&1; then # nor what is generated
  grep -E -A4 '(warning|error):' "$log" || tail -n 40 "$log"
  echo "check: clang-tidy failed" >&2
  exit 1
fi

[[ "${1:-}" == "--style" ]] && exit 0
scripts/test.sh
scripts/test.sh --asan
scripts/test.sh --tsan
