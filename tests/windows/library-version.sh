#!/usr/bin/env bash
# A Windows program on ferrolt.dll reads the version of ferrolt-devsim (the
# Linux build's) over TCP, under Wine. The program must import ferrolt.dll:
# it was linked through the import library, not against the code itself.
#   library-version.sh WINE OBJDUMP PROGRAM DEVSIM
set -euo pipefail
wine=$1 objdump=$2 program=$3 devsim=$4
[ -x "$devsim" ] || { echo "$devsim is missing: build the default preset first (ferrolt-devsim is a Linux program)"; exit 1; }
imports=$("$objdump" -p "$program")
grep -q 'DLL Name: ferrolt.dll' <<<"$imports" || { echo "$program does not import ferrolt.dll"; exit 1; }

work=$(mktemp -d "${TMPDIR:-/tmp}/ferrolt-dll.XXXXXX")
devsim_pid=
cleanup() {
  if [ -n "$devsim_pid" ]; then kill "$devsim_pid" 2>/dev/null || true; wait "$devsim_pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

"$devsim" --tcp 127.0.0.1:0 --root "$work/root" --version 7.8.9 >"$work/devsim.out" 2>&1 &
devsim_pid=$!
for _ in $(seq 200); do
  grep -q 'listening on ' "$work/devsim.out" && break
  sleep 0.05
done
endpoint=$(sed -n 's/^ferrolt-devsim: listening on //p' "$work/devsim.out")
[ -n "$endpoint" ] || { cat "$work/devsim.out"; echo "ferrolt-devsim did not start"; exit 1; }

output=$("$wine" "$program" "emulator:$endpoint" 7.8.9 </dev/null | tr -d '\r')
echo "$output"
[ "$output" = "version 7.8.9" ]
