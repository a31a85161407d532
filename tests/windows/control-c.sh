#!/usr/bin/env bash
# Ctrl+C during a run ends ferrolt.exe with status 1 at once, and every line
# it printed reaches its file: under Wine, SIGINT to the Wine process is the
# console's Ctrl+C event. Two runs: "version" without a device, stopped in
# its 3 s end wait; a download from ferrolt-devsim, stopped mid-file, whose
# "Read data" lines standard output (not a console) holds for a while before
# it writes them.
# Usage: control-c.sh WINE FERROLT_EXE DEVSIM
set -uo pipefail
wine=$1
exe=$2
devsim=$3
work=$(mktemp -d)
source "$(dirname "$0")/devsim-tcp.sh"
trap 'stop_devsim; rm -rf "$work"' EXIT
cd "$work"

# Starts ferrolt.exe with ARGS, standard output and error into out.txt, and
# sends it Ctrl+C once out.txt holds TEXT; sets status and elapsed_ms.
interrupt_when() {
  local text=$1
  shift
  "$wine" "$exe" "$@" >out.txt 2>&1 </dev/null &
  local pid=$!
  for _ in $(seq 200); do
    grep -q "$text" out.txt && break
    sleep 0.1
  done
  grep -q "$text" out.txt || { echo "no \"$text\" before the signal"; cat out.txt; kill -KILL $pid; exit 1; }
  local start
  start=$(date +%s%N)
  kill -INT $pid
  wait $pid
  status=$?
  elapsed_ms=$((($(date +%s%N) - start) / 1000000))
  echo "$* : exit status $status after ${elapsed_ms} ms"
  [ "$status" -eq 1 ] || { tr -d '\r' <out.txt | tail -5; echo "expected exit status 1"; exit 1; }
}

# The log line is shown before the end wait.
interrupt_when "LogMessageCallBack:" version
tr -d '\r' <out.txt
# Well inside the 3000 ms end wait that a run without Ctrl+C would finish.
[ "$elapsed_ms" -lt 2000 ] || { echo "the run did not end at once"; exit 1; }
if grep -q "Operation has been Canceled" out.txt; then echo "Ctrl+C must not cancel"; exit 1; fi

# 8 MiB: the download is still going when the signal comes.
mkdir -p device/tmp
head -c $((8 << 20)) /dev/urandom >device/tmp/big
start_devsim "$devsim" "$work/device" || exit 1
export FERROLT_EMULATOR=$endpoint
interrupt_when "Read data :" download /tmp/big big
# The link's teardown takes at most 1 s; the rest is margin.
[ "$elapsed_ms" -lt 4000 ] || { echo "the run did not end promptly"; exit 1; }
# A block is logged before it is saved: a line for the start reply and one
# for each 57-byte block in the file, the last one whole.
lines=$(grep -c "Read data :" out.txt)
blocks=$((($(stat -c %s big) + 56) / 57))
echo "$lines \"Read data\" lines for $blocks blocks saved"
[ "$lines" -ge $((blocks + 1)) ] || { echo "lines printed before Ctrl+C were lost"; exit 1; }
[ "$(tail -c 2 out.txt | od -An -tx1 | tr -d ' ')" = "0d0a" ] || { echo "the output ends mid-line"; exit 1; }
exit 0
