#!/usr/bin/env bash
# The tool against what the same kernel carries, through a real kernel's USB
# stack: the tool built twice (the default preset, and "window1" with one
# write in flight and one read queued), each in the QEMU guest of
# tests/kernel/guest.sh, talking to ferrolt-devsim's usbredir front, beside
# a bare libusb pump (bench/kernel/BareUsbPump.cpp) that moves the same
# packets with the same window and nothing of the tool's. In each guest, two
# interleaved rounds of: the tool's upgrade, the pump's, the tool's download
# of the same file, the pump's; then the tool's upgrade again while the
# device refuses 1% of its packets, and its download again from a device
# that sends each block as a USB packet of its own (ferrolt-devsim's
# block-per-packet; otherwise it fills each 512-byte packet with up to 8 due
# blocks, and one read in flight already moves them all). Every byte is
# compared: the bundle the device received against the one sent, each
# downloaded file against the device's. Prints packets/s and MiB/s, the
# window's gain and the tool/pump ratios against their goals; exits non-zero
# when a byte differs or an operation fails, never for speed.
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
readonly kBareGoal=0.8
# The phases the device is restarted between, each ending with an upgrade
# whose bytes are compared; the last device serves the block-per-packet download.
readonly kPhases=(upgrade1 bare_upgrade1 upgrade2 bare_upgrade2 storm)
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
cmake --build --preset default --target ferrolt ferrolt-devsim bare_usb_pump >/dev/null
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
objcopy --strip-debug build/default/bench/bare_usb_pump "$work/payload/bare_usb_pump"
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
# download NAME COMMAND...: timed, and the file it wrote compared.
download() {
  timed "$@"
  if cmp -s got.bin /payload/bundle.bin; then echo "@@same $1"; else echo "@@differs $1"; fi
  rm -f got.bin
}
window=$(cat /payload/window)
pump=/payload/bare_usb_pump
wait_device ''
timed version ferrolt version
for round in 1 2; do
  timed upgrade$round ferrolt upgrade /payload/bundle.bin
  phase upgrade$round
  timed bare_upgrade$round $pump upgrade /payload/bundle.bin "$window"
  phase bare_upgrade$round
  download download$round ferrolt download /tmp/bundle.bin got.bin
  download bare_download$round $pump download /tmp/bundle.bin got.bin "$window"
done
timed storm ferrolt upgrade /payload/bundle.bin
phase storm
download blocks ferrolt download /tmp/bundle.bin got.bin
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

# One boot of the guest with the tool of build folder BUILD and the pump
# with WINDOW; leaves each operation's centiseconds (NAME_version,
# NAME_upgrade1, NAME_bare_download2, NAME_storm, NAME_blocks ...), each
# pair of rounds' mean (NAME_upgrade, NAME_bare_download ...) and what was
# compared in results.
declare -A results
run_build() {
  local name=$1 build=$2 console="$work/$1.console" status phase
  echo "$3" >"$work/payload/window"
  status=0
  "$guest" prepare "$kernelDir" "$build/app/ferrolt" "$work/payload" || status=$?
  if [ "$status" -eq "$kSkip" ]; then
    echo "kernel_throughput: skipped (no QEMU or no kernel to be had here)"
    exit "$kSkip"
  fi
  [ "$status" -eq 0 ] || exit "$status"
  : >"$console"
  for phase in "${kPhases[@]}"; do
    if [ "$phase" = storm ]; then start_device "$work/$name.$phase" --fault "nack=$nacks"; else start_device "$work/$name.$phase"; fi
    if [ -z "$guest_pid" ]; then
      "$guest" boot "$kernelDir" "$work/usbredir.sock" >"$console" 2>&1 &
      guest_pid=$!
    fi
    await "$console" "@@phase $phase"
    stop_device
    received "$work/$name.$phase" "${name}_${phase}_bytes"
  done
  start_device "$work/$name.blocks" --fault block-per-packet
  await "$console" "@@end"
  wait "$guest_pid" || true
  guest_pid=""
  stop_device
  local line op code centis
  while read -r line op code centis; do
    results[${name}_$op]=$centis
    [ "$code" = 0 ] || { echo "$name: $op exited $code" >&2; ((++failures)); }
  done < <(tr -d '\r' <"$console" | grep "^@@time ")
  for op in download1 download2 bare_download1 bare_download2 blocks; do
    if tr -d '\r' <"$console" | grep -q "^@@same $op\$"; then
      results[${name}_${op}_bytes]=same
    else
      results[${name}_${op}_bytes]=differs
      ((++failures))
    fi
  done
  for op in version upgrade1 upgrade2 bare_upgrade1 bare_upgrade2 download1 download2 bare_download1 bare_download2 storm blocks; do
    [ -n "${results[${name}_$op]:-}" ] || { echo "$name: no time for $op" >&2; tr -d '\r' <"$console" | tail -n 20 >&2; exit 1; }
  done
  for op in upgrade bare_upgrade download bare_download; do
    results[${name}_$op]=$(((results[${name}_${op}1] + results[${name}_${op}2]) / 2))
    results[${name}_${op}_bytes]=$(same_in "${name}_${op}1_bytes" "${name}_${op}2_bytes")
  done
}

# "same" when every KEY's result is, else "differs".
same_in() {
  local key
  for key; do [ "${results[$key]}" = same ] || { echo differs; return; }; done
  echo same
}

run_build window build/default "$window"
run_build one build/window1 1

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
# The tool's rate over the pump's with the same window: on the packets
# alone (less "ferrolt version") and for the whole run.
for op in upgrade download; do
  for name in window one; do
    if [ "$name" = window ]; then in_flight=$window; else in_flight=1; fi
    echo "$op, bare libusb pump, window $in_flight: $(rate "${results[${name}_bare_$op]}"), bytes ${results[${name}_bare_${op}_bytes]}"
    echo "$op, tool / bare pump, window $in_flight: $(ratio "${results[${name}_bare_$op]}" "$((results[${name}_$op] - results[${name}_version]))")x on the packets, $(ratio "${results[${name}_bare_$op]}" "${results[${name}_$op]}")x for the whole run (goal ${kBareGoal}x on the packets)"
  done
done
count=$(awk -F, '{ print NF }' <<<"$nacks")
storm="upgrade, $count packets refused once (${kNackPercent}%, seed $kNackSeed)"
echo "$storm, window $window: $(rate "${results[window_storm]}") ($(packet_rate window storm)), bytes ${results[window_storm_bytes]}"
echo "$storm, window 1:  $(rate "${results[one_storm]}") ($(packet_rate one storm)), bytes ${results[one_storm_bytes]}"
echo "$storm, window $window / window 1: $(ratio "${results[one_storm]}" "${results[window_storm]}")x, $(packet_ratio storm)x less \"ferrolt version\""
[ "$failures" -eq 0 ] || { echo "kernel_throughput: $failures failed or differed"; exit 1; }
