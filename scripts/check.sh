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

# In two passes. What looks at all that a file sees, system headers included, looks at a room at a time: so it goes
# over these once for each room and not for each file. What looks at a file itself gets each file alone.
echo "check: clang-tidy, which also proves that what a mutex guards is touched with it held"
own='(halden|misc|zrstl)'
of_files=misc-unused-using-decls,misc-unused-alias-decls,misc-definitions-in-headers,readability-duplicate-include
of_files+=,readability-redundant-preprocessor,bugprone-suspicious-include
cmake --preset tidy >/dev/null
cmake --preset tidy -B build/tidy-rooms -DCMAKE_UNITY_BUILD=ON -DCMAKE_UNITY_BUILD_BATCH_SIZE=20 \
  -DHALDEN_BUILD_TESTS=OFF -DHALDEN_BUILD_BENCH=OFF >/dev/null
for build in tidy tidy-rooms; do # the generated headers
  cmake --build "build/$build" --target generated/zr/messaging/halden/{service,snapshot}.pb.h >/dev/null
done
log=$(mktemp)
trap 'rm -f "$log"' EXIT
tidy() { # tidy BUILD REGEX ARGUMENT...
  local build=$1 files=$2
  shift 2
  run-clang-tidy -p "build/$build" -quiet -j "$(nproc)" -extra-arg=-Wthread-safety "$@" "$files" >"$log" 2>&1 && return
  grep -E -A4 '(warning|error):' "$log" || tail -n 40 "$log"
  echo "check: clang-tidy failed" >&2
  exit 1
}
tidy tidy-rooms "^(?!.*(_proto_objects|_agent_page)\.dir/)(?!.*/generated/).*" -checks=-bugprone-suspicious-include \
  -header-filter="/$own/[^.]*\.(h|cpp)\$" # but what is generated
tidy tidy "^(?!.*/(test|bench|fuzz)/)(?!$PWD/build/).*/$own/.*\.cpp\$" "-checks=-*,$of_files"

[[ "${1:-}" == "--style" ]] && exit 0
scripts/test.sh
scripts/test.sh --asan
scripts/test.sh --tsan
