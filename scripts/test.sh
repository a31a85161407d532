#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test: the plain build,
# then under AddressSanitizer with UndefinedBehaviorSanitizer, then under
# ThreadSanitizer, then the .deb, then a short run of the fuzzers, then the
# Windows build under Wine and its zip.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh --tests

export TMPDIR="${TMPDIR:-/tmp}"
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=0"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"

for preset in default asan tsan; do
  echo "== $preset: build"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  echo "== $preset: test"
  ctest --preset "$preset"
done

echo "== default: the .deb, installed, run and removed"
bash tests/package/deb-test.sh build/default

echo "== fuzz: build and a short run"
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz --target fuzz_targets
# A few seconds each keeps the stage short as targets are added; the README
# says how to run one longer.
fuzz_seconds="${FERROLT_FUZZ_SECONDS:-5}"
for fuzzer in build/fuzz/tests/fuzz/fuzz_*; do
  [ -x "$fuzzer" ] || continue
  "$fuzzer" -max_total_time="$fuzz_seconds" -seed=1 >/dev/null 2>&1 || { echo "fuzzer $fuzzer failed"; "$fuzzer" -runs=0 ; exit 1; }
  echo "$(basename "$fuzzer"): $fuzz_seconds s without a finding"
done

bash scripts/test-windows.sh
