#!/usr/bin/env bash
# Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#
# Writes the API reference to build/docs/html; fails on a warning.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh --docs
mkdir -p build/docs
doxygen docs/Doxyfile
echo "api docs: build/docs/html/index.html"
