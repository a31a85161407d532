#!/usr/bin/env bash
# Builds the default preset and runs every benchmark program in turn, each
# printing its own figures, then the library's (bench/library_bench.py), the
# chaos soak (1000 runs, about 20 minutes) and the real-kernel benchmark where
# QEMU and a kernel can be had.
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
echo "== library_bench"
# The Python package on libferrolt against the command line.
python3 bench/library_bench.py build/default || { echo "library_bench failed"; status=1; }
echo "== chaos_soak"
bash bench/chaos_soak.sh || { echo "chaos_soak found damaged, hung or falsely alarmed runs"; status=1; }
echo "== kernel_throughput"
kernel=0
bash bench/kernel_throughput.sh || kernel=$?
case "$kernel" in
  0) ;;
  77) ;;  # it printed why it was skipped
  *) echo "kernel_throughput failed"; status=1 ;;
esac
exit "$status"
