#!/usr/bin/env bash
# Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#
# Builds the Debian packages: the shared library, the development files, the command. They end up in
# build/release/packages. Install them with: apt-get install build/release/packages/*.deb
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release --target halden_shared halden_static halden_testing halden_tool halden_generated
rm -rf build/release/packages
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! (cd build/release && cpack -G DEB) >"$log" 2>&1; then
  cat "$log" >&2
  exit 1
fi
ls build/release/packages/*.deb
