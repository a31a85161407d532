#!/usr/bin/env bash
# Ctrl+C during a run ends ferrolt.exe with status 1 at once: under Wine,
# SIGINT to the Wine process is the console's Ctrl+C event. The run is
# "version" without a device, stopped in its 3 s end wait.
# Usage: control-c.sh WINE FERROLT_EXE
set -uo pipefail
wine=$1
exe=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

"$wine" "$exe" version >out.txt 2>&1 </dev/null &
pid=$!
# The log line is flushed when written; the end wait follows it.
for _ in $(seq 200); do
  grep -q "LogMessageCallBack:" out.txt && break
  sleep 0.1
done
grep -q "LogMessageCallBack:" out.txt || { echo "no log line before the signal"; cat out.txt; kill -KILL $pid; exit 1; }
start=$(date +%s%N)
kill -INT $pid
wait $pid
status=$?
elapsed_ms=$(( ($(date +%s%N) - start) / 1000000 ))
echo "exit status $status after ${elapsed_ms} ms"
tr -d '\r' <out.txt
[ "$status" -eq 1 ] || { echo "expected exit status 1"; exit 1; }
# Well inside the 3000 ms end wait that a run without Ctrl+C would finish.
[ "$elapsed_ms" -lt 2000 ] || { echo "the run did not end at once"; exit 1; }
if grep -q "Operation has been Canceled" out.txt; then echo "Ctrl+C must not cancel"; exit 1; fi
exit 0
