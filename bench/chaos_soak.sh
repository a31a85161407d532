#!/usr/bin/env bash
# The chaos soak: random operations of the tool (upload, download, upgrade,
# version, logs, a CLI session), each against a ferrolt-devsim of its own on
# a Unix socket with a random set of faults, every choice drawn from one seed.
# Each run is recorded (command, faults, exit status under
# FERROLT_EXIT_STATUS=1, standard output and error, time) and judged:
#
#   SILENT DAMAGE    an upload ended "Finished File Upload!" with status 0 or
#                    nothing on standard error, and the device's copy differs
#   FALSE VERIFY     the same with FERROLT_VERIFY=1: status 0 or "verified"
#                    over a copy that differs
#   HANG             a run of the tool outlived the bound
#   FALSE ALARM      a run without faults said something on standard error
#   UPGRADE DAMAGE   an upgrade that ended with status 0 or the device's
#                    "Upgrade complete" while the bundle it received differs
#   DOWNLOAD DAMAGE  a download with status 0 and nothing on standard error
#                    whose file differs from the device's
#
# The summary lists every judged run with its seed and faults, and the
# command that replays it alone; the exit status is 1 when any run was judged.
#
#   bash bench/chaos_soak.sh [--runs N] [--seed S] [--jobs J] [--out DIR]
#                            [--tool PATH] [--devsim PATH]
#   bash bench/chaos_soak.sh --replay RUN_SEED     # one run again, kept whole
set -uo pipefail

readonly kDefaultRuns=1000
readonly kDefaultJobs=4
# A run of the tool that takes longer than this (seconds) is a hang: every
# wait of the tool is bounded well below it.
readonly kRunBound=120
readonly kKillGrace=5
# How long a ferrolt-devsim may take to listen, in tenths of a second.
readonly kDevsimStartTenths=100
readonly kMinFileBytes=1024
readonly kMaxFileBytes=20480
# Shares of the runs, in percent.
readonly kFaultlessPercent=20
readonly kVerifyPercent=50
# Operations and their weights.
readonly kOperations=(upload download upgrade version logs cli)
readonly kOperationWeights=(40 15 15 10 10 10)
readonly kWordOnTheDevice="chaos-soak"

repo=$(cd "$(dirname "$0")/.." && pwd)
tool="$repo/build/default/app/ferrolt"
devsim="$repo/build/default/devsim/ferrolt-devsim"
runs=$kDefaultRuns
jobs=$kDefaultJobs
seed=""
replay=""
out=""

usage() {
  sed -n '/^#   bash/,/^$/p' "$0" | sed 's/^# \{0,1\}//'
  exit 2
}

while [ $# -gt 0 ]; do
  case "$1" in
    --runs) runs=$2; shift 2 ;;
    --seed) seed=$2; shift 2 ;;
    --jobs) jobs=$2; shift 2 ;;
    --out) out=$2; shift 2 ;;
    --tool) tool=$2; shift 2 ;;
    --devsim) devsim=$2; shift 2 ;;
    --replay) replay=$2; shift 2 ;;
    *) usage ;;
  esac
done
for number in "$runs" "$jobs" ${seed:+"$seed"} ${replay:+"$replay"}; do
  [[ "$number" =~ ^[0-9]+$ ]] || usage
done
for program in "$tool" "$devsim"; do
  [ -x "$program" ] || { echo "chaos_soak: $program is not built (cmake --build --preset default)" >&2; exit 2; }
done

# xorshift32, in shell arithmetic so that a seed means the same everywhere.
# draw N leaves a number from 0 to N-1 in $drawn. The first draws after
# seeding are dropped: with a small seed they are small too.
readonly kWarmUpDraws=8
random_state=1
seed_random() {
  random_state=$(($1 & 0xFFFFFFFF))
  [ "$random_state" -ne 0 ] || random_state=0x9E3779B9
  local i
  for ((i = 0; i < kWarmUpDraws; ++i)); do draw 2; done
}
draw() {
  local x=$random_state
  x=$((x ^ ((x << 13) & 0xFFFFFFFF)))
  x=$((x ^ (x >> 17)))
  x=$((x ^ ((x << 5) & 0xFFFFFFFF)))
  random_state=$x
  drawn=$((x % $1))
}
chance() { draw 100; [ "$drawn" -lt "$1" ]; }
between() { draw $(($2 - $1 + 1)); drawn=$(($1 + drawn)); }

pick_operation() {
  local total=0 weight i
  for weight in "${kOperationWeights[@]}"; do total=$((total + weight)); done
  draw "$total"
  for i in "${!kOperations[@]}"; do
    if [ "$drawn" -lt "${kOperationWeights[$i]}" ]; then
      operation=${kOperations[$i]}
      return
    fi
    drawn=$((drawn - kOperationWeights[i]))
  done
}

# A random set of the devsim faults that meet the soak's operations: late
# replies, stalled writes, refused packets. At least one when any. Each is
# taken by its chance (percent); the values are drawn within the bounds.
readonly kJitterChance=50 kDelayChance=15 kStallChance=30 kRefusalChance=40 kNackChance=25
# Replies up to 20 ms late, as from a device busy elsewhere: the earliest
# 0-5 ms, the latest at least 5 ms after it.
readonly kLatestReplyMs=20 kMostEarliestReplyMs=5 kLeastJitterMs=5 kMostDelayMs=10
readonly kStallPercents=(0.1 0.2 0.5 1)
readonly kMostRefusalPercent=10 kMostNackPercent=5
pick_faults() {
  faults=()
  chance "$kFaultlessPercent" && return
  while [ ${#faults[@]} -eq 0 ]; do
    if chance "$kJitterChance"; then
      between 0 "$kMostEarliestReplyMs"
      local low=$drawn
      between $((low + kLeastJitterMs)) "$kLatestReplyMs"
      faults+=("jitter-replies=$low-$drawn")
    fi
    if chance "$kDelayChance"; then between 1 "$kMostDelayMs"; faults+=("delay-replies=$drawn"); fi
    if chance "$kStallChance"; then
      draw ${#kStallPercents[@]}
      faults+=("stall-writes-random=${kStallPercents[$drawn]}")
    fi
    if chance "$kRefusalChance"; then between 1 "$kMostRefusalPercent"; faults+=("upload-nack-random=$drawn"); fi
    if chance "$kNackChance"; then between 1 "$kMostNackPercent"; faults+=("nack-random=$drawn"); fi
  done
}

# Every choice of one run, from its own seed.
plan_run() {
  seed_random "$1"
  pick_operation
  between "$kMinFileBytes" "$kMaxFileBytes"
  bytes=$drawn
  case "$operation" in version | logs | cli) bytes=0 ;; esac
  pick_faults
  verify=0
  if [ "$operation" = upload ] && chance "$kVerifyPercent"; then verify=1; fi
  draw 2147483647
  device_seed=$drawn
}

# Starts ferrolt-devsim for the run in $dir; its pid in $device_pid.
start_device() {
  local fault_args=() fault tenths
  for fault in "${faults[@]}"; do fault_args+=(--fault "$fault"); done
  "$devsim" --socket "$socket" --root "$dir/root" --seed "$device_seed" --events "$dir/events" \
    --record "$dir/record" "${fault_args[@]}" >"$dir/devsim.out" 2>&1 &
  device_pid=$!
  for ((tenths = 0; tenths < kDevsimStartTenths; ++tenths)); do
    grep -q "listening on" "$dir/devsim.out" 2>/dev/null && return 0
    sleep 0.1
  done
  return 1
}

# One run of the tool in $dir; its words go to $dir/command, its output is
# added to $dir/stdout and $dir/stderr. Sets $status (the first non-zero of
# the run's commands) and $hung.
run_tool() {
  local env=(FERROLT_EMULATOR="$socket" FERROLT_EXIT_STATUS=1)
  [ "$verify" = 1 ] && env+=(FERROLT_VERIFY=1)
  printf '%s ' "${env[@]}" ferrolt "$@" >>"$dir/command"
  echo >>"$dir/command"
  (cd "$dir" && env "${env[@]}" timeout -k "$kKillGrace" "$kRunBound" "$tool" "$@" >>stdout 2>>stderr)
  local code=$?
  [ "$code" -eq 124 ] || [ "$code" -eq 137 ] && hung=1
  [ "$status" -ne 0 ] || status=$code
}

# $bytes pseudo-random bytes from the device's seed, the same at a replay.
random_file() {
  LC_ALL=C awk -v n="$bytes" -v s="$device_seed" 'BEGIN { srand(s); for (i = 0; i < n; i++) printf "%c", int(rand() * 256) }' >"$1"
}

run_operation() {
  case "$operation" in
    upload)
      random_file "$dir/soak.bin"
      run_tool upload soak.bin ;;
    download)
      random_file "$dir/root/tmp/soak.bin"
      run_tool download /tmp/soak.bin soak.bin ;;
    upgrade)
      random_file "$dir/bundle.img"
      run_tool upgrade bundle.img ;;
    version) run_tool version ;;
    logs) run_tool logs logs.zip ;;
    cli)
      run_tool startcli
      run_tool cmd "echo $kWordOnTheDevice"
      run_tool stopcli ;;
  esac
}

differs() { ! cmp -s "$1" "$2"; }
# Standard error says the copy was verified (not that it could not be).
said_verified() { grep -iv "not\|n't" "$dir/stderr" | grep -qiw "verified"; }

# The run's class, from what it left in $dir. A read-back's "verified" is
# what FERROLT_VERIFY asked for, no alarm.
judge() {
  local err_said=0
  grep -qv "^ferrolt: verified: " "$dir/stderr" && err_said=1
  if [ "$hung" = 1 ]; then
    verdict="HANG"
  elif [ "$operation" = upload ] && grep -q "Finished File Upload!" "$dir/stdout" &&
    differs "$dir/soak.bin" "$dir/root/tmp/soak.bin"; then
    if [ "$verify" = 1 ] && { [ "$status" -eq 0 ] || said_verified; }; then
      verdict="FALSE VERIFY"
    elif [ "$verify" = 0 ] && { [ "$status" -eq 0 ] || [ "$err_said" = 0 ]; }; then
      verdict="SILENT DAMAGE"
    fi
  elif [ "$operation" = upgrade ] && { [ "$status" -eq 0 ] || grep -q "Upgrade complete" "$dir/stdout"; } &&
    differs "$dir/bundle.img" "$dir/root/upgrade/bundle.img"; then
    verdict="UPGRADE DAMAGE"
  elif [ "$operation" = download ] && [ "$status" -eq 0 ] && [ "$err_said" = 0 ] &&
    differs "$dir/root/tmp/soak.bin" "$dir/soak.bin"; then
    verdict="DOWNLOAD DAMAGE"
  fi
  if [ -z "$verdict" ] && [ ${#faults[@]} -eq 0 ] && [ "$err_said" = 1 ]; then verdict="FALSE ALARM"; fi
}

# One whole run: plan, device, tool, verdict; a line in $dir/result.
run_one() {
  local index=$1 run_seed=$2
  dir="$out/run-$index"
  socket="$sockets/$index.sock"
  rm -rf "$dir" && mkdir -p "$dir/root/tmp"
  plan_run "$run_seed"
  status=0 hung=0 verdict="" device_pid=""
  local started
  started=$(date +%s%3N)
  # Stopped from outside, the run takes its device with it.
  trap 'kill "$device_pid" 2>/dev/null; exit 1' INT TERM
  if start_device; then
    run_operation
    judge
  else
    verdict="NO DEVICE"
  fi
  kill "$device_pid" 2>/dev/null
  wait "$device_pid" 2>/dev/null
  local millis=$(($(date +%s%3N) - started))
  printf '%s\t%s\t%s\t%s\t%s\t%s\t%s.%03d\t%s\t%s\n' "$index" "$run_seed" "$operation" "$bytes" "$verify" "$status" \
    $((millis / 1000)) $((millis % 1000)) "${verdict:-ok}" "${faults[*]:-none}" >"$dir/result"
  # The device's side of a run that passed is not worth its room.
  [ -n "$verdict" ] || [ -n "$replay" ] || rm -rf "$dir/root" "$dir/record" "$dir/events" "$dir"/*.bin "$dir"/*.img
  cut -f1,3,4,6,7,8 "$dir/result" | awk -F'\t' '{printf "run %s: %s%s, status %s, %s s, %s\n", $1, $2, $3 ? " " $3 " B" : "", $4, $5, $6}'
}

summarize() {
  local results="$out/results.tsv" elapsed=$1
  cat "$out"/run-*/result 2>/dev/null | sort -n >"$results"
  echo
  echo "chaos soak: seed $seed, $(wc -l <"$results") runs, $jobs at a time, ${elapsed} s; records in $out"
  awk -F'\t' '{runs[$3]++; if ($6 == 0) done[$3]++; time[$3] += $7}
    END {printf "%-10s %6s %9s %11s\n", "operation", "runs", "status 0", "mean time";
         for (op in runs) printf "%-10s %6d %9d %10.1fs\n", op, runs[op], done[op], time[op] / runs[op]}' "$results"
  local classes=("SILENT DAMAGE" "FALSE VERIFY" "HANG" "FALSE ALARM" "UPGRADE DAMAGE" "DOWNLOAD DAMAGE" "NO DEVICE")
  local class count judged=0
  for class in "${classes[@]}"; do
    count=$(awk -F'\t' -v c="$class" '$8 == c' "$results" | wc -l)
    printf '%-16s %6d\n' "$class" "$count"
    judged=$((judged + count))
  done
  awk -F'\t' '$8 != "ok" {printf "%s: run %s, seed %s: %s %s B, verify %s, status %s, faults: %s\n  replay: bash bench/chaos_soak.sh --replay %s\n",
    $8, $1, $2, $3, $4, $5, $6, $9, $2}' "$results"
  [ "$judged" -eq 0 ]
}

out=${out:-$(mktemp -d "${TMPDIR:-/tmp}/ferrolt-soak.XXXXXX")}
mkdir -p "$out"
# Unix socket paths are short: the sockets live apart from the records.
sockets=$(mktemp -d /tmp/ferrolt-soak-sockets.XXXXXX)
trap 'rm -rf "$sockets"' EXIT
trap 'kill $(jobs -p) 2>/dev/null; wait; exit 1' INT TERM

if [ -n "$replay" ]; then
  seed="replay of $replay" jobs=1
  run_one 0 "$replay"
  echo "command: $(cat "$out/run-0/command")"
  echo "faults: $(cut -f9 "$out/run-0/result"), device seed: $device_seed; its events and record: $out/run-0"
  summarize "$SECONDS"
  exit
fi

[ -n "$seed" ] || seed=$(od -An -N4 -tu4 /dev/urandom | tr -d ' ')
echo "chaos soak: seed $seed, $runs runs, $jobs at a time (replay all: --seed $seed --runs $runs)"
rm -f "$out"/run-*/result
seed_random "$seed"
started=$SECONDS
for ((index = 0; index < runs; ++index)); do
  draw 2147483647
  run_seed=$((drawn + 1))
  while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do wait -n; done
  run_one "$index" "$run_seed" &
done
wait
summarize $((SECONDS - started))
