#!/usr/bin/env bash
# Installs what is missing, builds, starts ferrolt-devsim on a temporary
# socket and runs the tool's commands against it as a user would: an upgrade
# first, then the other commands. Stops the emulator again at the end.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD

bash scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default --target ferrolt ferrolt-devsim

bin=$top/build/default
work=$(mktemp -d "${TMPDIR:-/tmp}/ferrolt-demo.XXXXXX")
devsim_pid=
cleanup() {
  [ -n "$devsim_pid" ] && kill "$devsim_pid" 2>/dev/null && wait "$devsim_pid" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

"$bin/devsim/ferrolt-devsim" --socket "$work/device.sock" --root "$work/device" >"$work/devsim.out" 2>&1 &
devsim_pid=$!
for _ in $(seq 100); do grep -q listening "$work/devsim.out" 2>/dev/null && break; sleep 0.05; done
export FERROLT_EMULATOR=$work/device.sock

run() {
  echo
  echo "\$ ferrolt $*"
  (cd "$work" && "$bin/app/ferrolt" "$@")
}

bash scripts/make-bundle.sh "$work/bundle.img" 2.0.0 200000
printf 'hello from the PC\n' >"$work/hello.txt"

run upgrade "$work/bundle.img"
run version
run startcli
run cmd "uname -s; ls /tmp"
run stopcli
run upload hello.txt  # run() works in $work: the bare name is the name on the device
run download /tmp/hello.txt "$work/hello-back.txt"
run logs "$work/logs.zip"
run startort extmic reboot 5 duration 20
run endort
run progCap
echo
cmp "$work/hello.txt" "$work/hello-back.txt" && echo "upload and download: the file came back unchanged"
unzip -t "$work/logs.zip" >/dev/null && echo "logs: the archive is sound"
