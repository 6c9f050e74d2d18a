#!/usr/bin/env bash
# Copyright the halden authors. SPDX-License-Identifier: Apache-2.0
#
# Runs the demo and draws what it printed as docs/demo.svg, the picture in the README.
set -euo pipefail
cd "$(dirname "$0")/.."

readonly columns=118 rows=56
log=$(mktemp)
trap 'rm -f "$log"' EXIT
scripts/demo.sh >"$log"
# From the first servers on: what comes before is the build.
sed -n '/^== Three data centres/,$p' "$log" | head -n "$rows" | cut -c "1-$columns" | awk -v columns="$columns" '
  { gsub(/&/, "\\&amp;"); gsub(/</, "\\&lt;"); gsub(/>/, "\\&gt;"); line[NR] = $0 }
  END {
    width = columns * 7.25 + 32
    height = NR * 16 + 40
    printf "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\" role=\"img\">\n", width, height
    print "<title>scripts/demo.sh in a terminal</title>"
    printf "<rect width=\"%d\" height=\"%d\" rx=\"6\" fill=\"#16181d\"/>\n", width, height
    print "<g font-family=\"DejaVu Sans Mono, Menlo, Consolas, monospace\" font-size=\"12\" xml:space=\"preserve\">"
    for (i = 1; i <= NR; i++) {
      colour = "#c8ccd4"
      weight = "normal"
      if (line[i] ~ /^== /) { colour = "#ffffff"; weight = "bold" }
      else if (line[i] ~ /checked:/) colour = "#7ec699"
      else if (line[i] ~ / removed /) colour = "#e08283"
      else if (line[i] ~ / (added|modified) /) colour = "#8ab4f8"
      else if (line[i] ~ / state /) colour = "#e6c07b"
      printf "<text x=\"16\" y=\"%d\" fill=\"%s\" font-weight=\"%s\">%s</text>\n", i * 16 + 20, colour, weight, line[i]
    }
    print "</g>\n</svg>"
  }' >docs/demo.svg
echo "picture: docs/demo.svg, $(grep -c '<text' docs/demo.svg) lines"
