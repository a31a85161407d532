#!/usr/bin/env bash
# Installs what is missing, builds the tool and the emulator (no tests),
# starts ferrolt-devsim on a temporary socket and runs the tool's commands
# against it as a user would: an upgrade first, then the other commands.
# The tool reports a failed operation on its console, not in its exit status,
# so the demo checks what came back and stops at the first step that failed,
# saying which, with status 1. Stops the emulator again at the end.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD

fail() {
  echo >&2
  echo "demo FAILED: $*" >&2
  exit 1
}

bash scripts/install-deps.sh
cmake --preset demo >/dev/null
cmake --build --preset demo --target ferrolt ferrolt-devsim

bin=$top/build/demo
# Each step takes seconds; one that hangs is a failure too.
step_limit_seconds=300
work=$(mktemp -d "${TMPDIR:-/tmp}/ferrolt-demo.XXXXXX")
devsim_pid=
cleanup() {
  if [ -n "$devsim_pid" ]; then
    kill "$devsim_pid" 2>/dev/null || true
    wait "$devsim_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

"$bin/devsim/ferrolt-devsim" --socket "$work/device.sock" --root "$work/device" >"$work/devsim.out" 2>&1 &
devsim_pid=$!
for _ in $(seq 100); do
  grep -q listening "$work/devsim.out" 2>/dev/null && break
  kill -0 "$devsim_pid" 2>/dev/null || break
  sleep 0.05
done
grep -q listening "$work/devsim.out" || { cat "$work/devsim.out" >&2; fail "ferrolt-devsim did not start"; }
export FERROLT_EMULATOR=$work/device.sock

# Runs the tool in $work, the folder of the demo's files, as a user would
# from theirs; its console lines are also kept in $work/console for checks.
run() {
  local shown=
  for argument; do
    [[ $argument == *" "* ]] && argument="\"$argument\""
    shown+=" $argument"
  done
  echo
  echo "\$ ferrolt$shown"
  local status=0
  (cd "$work" && timeout --foreground "$step_limit_seconds" "$bin/app/ferrolt" "$@") | tee "$work/console" ||
    status=$?
  [ "$status" -ne 124 ] || fail "ferrolt$shown did not end within $step_limit_seconds s"
  [ "$status" -eq 0 ] || fail "ferrolt$shown ended with status $status"
}

# Fails the demo unless the last command's console holds the text.
expect() {
  grep -qF -- "$1" "$work/console" || fail "$2"
}

bash scripts/make-bundle.sh "$work/bundle.img" 2.0.0 200000
printf 'hello from the PC\n' >"$work/hello.txt"

run upgrade "$work/bundle.img"
run version
expect "Version - 2.0.0" "the device does not report the upgraded bundle's version 2.0.0"
run upload hello.txt
run download /tmp/hello.txt hello-back.txt
cmp -s "$work/hello.txt" "$work/hello-back.txt" ||
  fail "upload and download: hello-back.txt differs from the hello.txt that was uploaded"
echo "(upload and download: the file came back unchanged)"
run startcli
# Commands the device runs; uname -s answers Linux.
run cmd "uname -s"
expect "Linux" "the CLI command did not answer"
run cmd "ls /tmp"
run stopcli
run logs logs.zip
unzip -tq "$work/logs.zip" >/dev/null 2>&1 || fail "logs: logs.zip is missing or not a sound zip archive"
echo "(logs: the archive is sound)"
run startort extmic reboot 5 duration 20
run endort
run progCap
echo
echo "demo: every step worked"
