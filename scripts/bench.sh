#!/usr/bin/env bash
# Builds the default preset and runs every benchmark program in turn, each
# printing its own figures.
set -euo pipefail
cd "$(dirname "$0")/.."

cmake --preset default >/dev/null
cmake --build --preset default

status=0
for bench in build/default/bench/bench_*; do
  [ -x "$bench" ] || continue
  echo "== $(basename "$bench")"
  "$bench" || { echo "$(basename "$bench") failed"; status=1; }
done
exit "$status"
