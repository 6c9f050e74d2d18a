#!/usr/bin/env bash
# Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#
# Compiles every C++ block of the documents against the built tree, checks the configuration that the README shows, and
# holds the test vector of the node format against the example that writes it without halden.
set -euo pipefail
cd "$(dirname "$0")/.."

build=build/dev
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

# blocks LANGUAGE FILE: each block into a file of its own, named for document and line
blocks() {
  awk -v language="$1" -v stem="$folder/$(basename "$2" .md)" '
    $0 == "```" language { out = stem "-" NR "." language; next }
    /^```/ { out = "" }
    out { print > out }' "$2"
}

for document in README.md docs/*.md; do
  blocks cpp "$document"
  blocks toml "$document"
done
count=0
for block in "$folder"/*.cpp; do
  "${CXX:-c++}" -std=c++20 -Wall -Wextra -Werror -fsyntax-only -Ihalden/cpp/include -Ihalden/testing/include -Izrstl/include -Imisc/logger/include \
    -isystem "$build/generated" "$block"
  count=$((count + 1))
done
for block in "$folder"/*.toml; do
  "$build/halden/tool/halden" config check "$block"
done
diff <(awk '$0 == "```vector" { on = 1; next } /^```/ { on = 0 } on' docs/node_format.md) \
  <(python3 examples/python/publish.py --test-vector) || { echo "docs: the test vector is another" >&2; exit 1; }
echo "docs: $count blocks compile, and the test vector is right"
