#!/usr/bin/env bash
# Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#
# Builds halden and runs all its tests.
#
#   scripts/test.sh            plain
#   scripts/test.sh --asan     under AddressSanitizer and UndefinedBehaviorSanitizer
#   scripts/test.sh --tsan     under ThreadSanitizer
#
# Further arguments go to ctest, for example: scripts/test.sh -R Connection
set -euo pipefail
cd "$(dirname "$0")/.."

preset=dev
case "${1:-}" in
  --asan) preset=asan; shift ;;
  --tsan) preset=tsan; shift ;;
esac

scripts/setup.sh --tests
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset"
# More than there are processors: the tests wait for servers most of the time.
ctest --test-dir "build/$preset" --output-on-failure --no-tests=error --parallel "$((2 * $(nproc)))" "$@"
