# Sourced by the Windows tests that need a device: ferrolt-devsim of the
# Linux build, on a free loopback TCP port.
#   start_devsim DEVSIM ROOT [OPTION...]  sets devsim_pid, and endpoint to
#                                         tcp:HOST:PORT; false when it fails
#   stop_devsim                           ends it, if it runs
devsim_pid=
endpoint=

start_devsim() {
  local devsim=$1 root=$2
  shift 2
  [ -x "$devsim" ] || { echo "$devsim is missing: build the default preset first (ferrolt-devsim is a Linux program)"; return 1; }
  "$devsim" --tcp 127.0.0.1:0 --root "$root" "$@" >"$root.out" 2>&1 &
  devsim_pid=$!
  for _ in $(seq 200); do
    grep -q 'listening on ' "$root.out" && break
    sleep 0.05
  done
  endpoint=$(sed -n 's/^ferrolt-devsim: listening on //p' "$root.out")
  [ -n "$endpoint" ] || { cat "$root.out"; echo "ferrolt-devsim did not start"; return 1; }
}

stop_devsim() {
  if [ -n "$devsim_pid" ]; then kill "$devsim_pid" 2>/dev/null || true; wait "$devsim_pid" 2>/dev/null || true; fi
  devsim_pid=
}
