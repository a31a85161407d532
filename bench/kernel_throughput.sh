#!/usr/bin/env bash
# The window against one transfer in flight, through a real kernel's USB
# stack: the tool built twice (the default preset, and "window1" with one
# write in flight and one read queued), each in the QEMU guest of
# tests/kernel/guest.sh, talking to ferrolt-devsim's usbredir front. In each
# guest: an upgrade and a download of the same bundle, timed, then the
# upgrade again while the device refuses 1% of its packets, and the download
# again from a device that sends each block as a USB packet of its own
# (ferrolt-devsim's block-per-packet; otherwise it fills each 512-byte
# packet with up to 8 due blocks, and one read in flight already moves
# them all). Every byte is
# compared: the bundle the device received against the one sent, the
# downloaded file against the device's. Prints packets/s and MiB/s of both
# builds and their ratio against the goal; exits non-zero when a byte
# differs or an operation fails, never for speed.
#   bench/kernel_throughput.sh [MIB]     bundle size in MiB (default 8)
# Exit status 77: no QEMU or no kernel here (skipped).
set -euo pipefail
cd "$(dirname "$0")/.."

readonly kSkip=77
readonly kSizeMiB=${1:-8}
readonly kPayloadSize=57  # bundle bytes per upgrade and download packet
readonly kNackPercent=1
readonly kNackSeed=16
readonly kGoal=2.5
readonly kListenLimit=10    # seconds for ferrolt-devsim to listen
readonly kPhaseLimit=900    # seconds for one guest phase: only against a hung guest
readonly kVersion=1.0.0
readonly guest=tests/kernel/guest.sh
readonly devsim=build/default/devsim/ferrolt-devsim
readonly kernelDir=build/default/bench/kernel-guest

[[ $kSizeMiB =~ ^[1-9][0-9]*$ ]] || { echo "usage: $0 [MIB]" >&2; exit 2; }
readonly size=$((kSizeMiB * 1024 * 1024))
readonly packets=$(((size + kPayloadSize - 1) / kPayloadSize))

cmake --preset default >/dev/null
cmake --build --preset default --target ferrolt ferrolt-devsim >/dev/null
cmake --preset window1 >/dev/null
cmake --build --preset window1 --target ferrolt >/dev/null
window=$(sed -n 's/^#define FERROLT_TRANSFERS_IN_FLIGHT \([0-9]*\)$/\1/p' link/Limits.h)

work=$(mktemp -d)
device_pid=""
guest_pid=""
cleanup() {
  [ -z "$device_pid" ] || kill "$device_pid" 2>/dev/null || true
  [ -z "$guest_pid" ] || kill "$guest_pid" 2>/dev/null || true
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

# WANT numbers of 0..COUNT-1, a fixed seed's choice, comma-separated.
spread() {
  awk -v count="$1" -v want="$2" -v seed="$kNackSeed" 'BEGIN {
    srand(seed)
    while (chosen < want) { n = int(rand() * count); if (!(n in seen)) { seen[n] = 1; ++chosen; print n } }
  }' | sort -n | paste -sd, -
}
readonly nacks=$(spread "$packets" $((packets * kNackPercent / 100)))

head -c "$size" /dev/urandom >"$work/bundle.bin"
mkdir -p "$work/payload"
cp "$work/bundle.bin" "$work/payload/"
# The guest's side, with the helpers of tests/kernel/init: "@@time NAME
# STATUS CENTISECONDS" for each operation, "@@same NAME" or "@@differs NAME"
# for each download.
cat >"$work/payload/run.sh" <<'EOF'
centiseconds() { cut -d' ' -f1 /proc/uptime | tr -d .; }
timed() {
  name=$1
  shift
  start=$(centiseconds)
  "$@" >/tmp/out 2>/tmp/err
  status=$?
  echo "@@time $name $status $(($(centiseconds) - start))"
  [ $status -eq 0 ] || tail -n 3 /tmp/out /tmp/err
}
wait_device ''
timed version ferrolt version
timed upgrade ferrolt upgrade /payload/bundle.bin
download() {
  timed "$1" ferrolt download /tmp/bundle.bin got.bin
  if cmp -s got.bin /payload/bundle.bin; then echo "@@same $1"; else echo "@@differs $1"; fi
  rm -f got.bin
}
download download
phase 1
timed storm ferrolt upgrade /payload/bundle.bin
phase 2
download blocks
EOF

# ferrolt-devsim on the guest's socket, its root ROOT, with FAULTS...
start_device() {
  local root=$1
  shift
  mkdir -p "$root/tmp"
  cp "$work/bundle.bin" "$root/tmp/bundle.bin"
  : >"$root.log"
  "$devsim" --usbredir "$work/usbredir.sock" --root "$root" --version "$kVersion" "$@" >"$root.log" 2>&1 &
  device_pid=$!
  for ((tries = 0; tries < kListenLimit * 10; ++tries)); do
    grep -q "listening on" "$root.log" && return 0
    sleep 0.1
  done
  echo "ferrolt-devsim did not start:" >&2
  cat "$root.log" >&2
  return 1
}

stop_device() {
  kill "$device_pid"
  wait "$device_pid" || true
  device_pid=""
}

# Waits for the guest's console to show TEXT.
await() {
  local console=$1 text=$2 tries
  for ((tries = 0; tries < kPhaseLimit * 10; ++tries)); do
    grep -q "$text" "$console" && return 0
    kill -0 "$guest_pid" 2>/dev/null || break
    sleep 0.1
  done
  echo "the guest never showed \"$text\":" >&2
  tr -d '\r' <"$console" | tail -n 20 >&2
  return 1
}

failures=0
# Whether the bundle the device in ROOT received is the one sent, as KEY.
received() {
  if cmp -s "$work/bundle.bin" "$1/upgrade/bundle.img"; then
    results[$2]=same
  else
    results[$2]=differs
    ((++failures))
  fi
}

# One boot of the guest with the tool of build folder BUILD; leaves
# NAME_version, NAME_upgrade, NAME_download, NAME_storm, NAME_blocks
# (centiseconds) and what was compared in results.
declare -A results
run_build() {
  local name=$1 build=$2 console="$work/$1.console" status
  status=0
  "$guest" prepare "$kernelDir" "$build/app/ferrolt" "$work/payload" || status=$?
  if [ "$status" -eq "$kSkip" ]; then
    echo "kernel_throughput: skipped (no QEMU or no kernel to be had here)"
    exit "$kSkip"
  fi
  [ "$status" -eq 0 ] || exit "$status"
  start_device "$work/$name.root0"
  : >"$console"
  "$guest" boot "$kernelDir" "$work/usbredir.sock" >"$console" 2>&1 &
  guest_pid=$!
  await "$console" "@@phase 1"
  stop_device
  received "$work/$name.root0" "${name}_upgrade_bytes"
  start_device "$work/$name.root1" --fault "nack=$nacks"
  await "$console" "@@phase 2"
  stop_device
  received "$work/$name.root1" "${name}_storm_bytes"
  start_device "$work/$name.root2" --fault block-per-packet
  await "$console" "@@end"
  wait "$guest_pid" || true
  guest_pid=""
  stop_device
  local line op code centis
  while read -r line op code centis; do
    results[${name}_$op]=$centis
    [ "$code" = 0 ] || { echo "$name: $op exited $code" >&2; ((++failures)); }
  done < <(tr -d '\r' <"$console" | grep "^@@time ")
  for op in download blocks; do
    if tr -d '\r' <"$console" | grep -q "^@@same $op\$"; then
      results[${name}_${op}_bytes]=same
    else
      results[${name}_${op}_bytes]=differs
      ((++failures))
    fi
  done
  for op in version upgrade download storm blocks; do
    [ -n "${results[${name}_$op]:-}" ] || { echo "$name: no time for $op" >&2; tr -d '\r' <"$console" | tail -n 20 >&2; exit 1; }
  done
}

run_build window build/default
run_build one build/window1

# rate CENTISECONDS: "S s, P packets/s, M MiB/s".
rate() {
  awk -v cs="$1" -v packets="$packets" -v size="$size" \
    'BEGIN { s = cs / 100; printf "%.2f s, %d packets/s, %.2f MiB/s", s, packets / s, size / s / 1048576 }'
}
# What every run of the tool costs besides its packets (starting under
# emulation, finding and opening the device, and the 3 s it waits at the
# end for a cancel) is about what "ferrolt version" takes; the rate without
# it is the rate of the packets.
# packet_rate NAME OP: "P packets/s less S s".
packet_rate() {
  awk -v cs="${results[$1_$2]}" -v fixed="${results[$1_version]}" -v packets="$packets" \
    'BEGIN { printf "%d packets/s less %.2f s", packets / ((cs - fixed) / 100), fixed / 100 }'
}
ratio() { awk -v slow="$1" -v fast="$2" 'BEGIN { printf "%.2f", slow / fast }'; }
# packet_ratio OP: the ratio of the rates less each build's "ferrolt version".
packet_ratio() {
  ratio "$((results[one_$1] - results[one_version]))" "$((results[window_$1] - results[window_version]))"
}

echo "real kernel under QEMU, ${kSizeMiB} MiB bundle ($packets packets), window $window against 1"
# What each operation's lines are headed with.
label() { [ "$1" = blocks ] && echo "download, a block a packet" || echo "$1"; }
for op in upgrade download blocks; do
  echo "$(label $op), window $window: $(rate "${results[window_$op]}") ($(packet_rate window "$op")), bytes ${results[window_${op}_bytes]}"
  echo "$(label $op), window 1:  $(rate "${results[one_$op]}") ($(packet_rate one "$op")), bytes ${results[one_${op}_bytes]}"
  echo "$(label $op), window $window / window 1: $(ratio "${results[one_$op]}" "${results[window_$op]}")x, $(packet_ratio "$op")x less \"ferrolt version\" (goal ${kGoal}x)"
done
count=$(awk -F, '{ print NF }' <<<"$nacks")
storm="upgrade, $count packets refused once (${kNackPercent}%, seed $kNackSeed)"
echo "$storm, window $window: $(rate "${results[window_storm]}") ($(packet_rate window storm)), bytes ${results[window_storm_bytes]}"
echo "$storm, window 1:  $(rate "${results[one_storm]}") ($(packet_rate one storm)), bytes ${results[one_storm_bytes]}"
echo "$storm, window $window / window 1: $(ratio "${results[one_storm]}" "${results[window_storm]}")x, $(packet_ratio storm)x less \"ferrolt version\""
[ "$failures" -eq 0 ] || { echo "kernel_throughput: $failures failed or differed"; exit 1; }
