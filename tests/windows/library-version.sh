#!/usr/bin/env bash
# A Windows program on ferrolt.dll reads the version of ferrolt-devsim (the
# Linux build's) over TCP, under Wine. The program must import ferrolt.dll:
# it was linked through the import library, not against the code itself.
#   library-version.sh WINE OBJDUMP PROGRAM DEVSIM
set -euo pipefail
wine=$1 objdump=$2 program=$3 devsim=$4
imports=$("$objdump" -p "$program")
grep -q 'DLL Name: ferrolt.dll' <<<"$imports" || { echo "$program does not import ferrolt.dll"; exit 1; }

source "$(dirname "$0")/devsim-tcp.sh"
work=$(mktemp -d "${TMPDIR:-/tmp}/ferrolt-dll.XXXXXX")
cleanup() {
  stop_devsim
  rm -rf "$work"
}
trap cleanup EXIT
start_devsim "$devsim" "$work/root" --version 7.8.9

output=$("$wine" "$program" "emulator:$endpoint" 7.8.9 </dev/null | tr -d '\r')
echo "$output"
[ "$output" = "version 7.8.9" ]
