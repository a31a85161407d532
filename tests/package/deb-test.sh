#!/usr/bin/env bash
# Builds the .deb from a build folder, has lintian check it, installs it with
# dpkg, checks that its files are in place and that the installed ferrolt
# talks to the installed ferrolt-devsim, then removes it and checks that
# nothing is left.
#   deb-test.sh BUILD_DIR
# Installs into the system: needs root, and refuses to replace a ferrolt
# package that is already installed.
set -euo pipefail

build=$(cd "${1:?usage: $0 BUILD_DIR}" && pwd)

fail() {
  echo "deb-test: FAILED: $*" >&2
  exit 1
}

[ "$(id -u)" -eq 0 ] || fail "dpkg -i needs root"
if dpkg-query -W -f='${Status}' ferrolt 2>/dev/null | grep -q "install ok installed"; then
  fail "a ferrolt package is already installed; remove it first (dpkg -r ferrolt)"
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/ferrolt-deb.XXXXXX")
devsim_pid=
installed=false
cleanup() {
  if [ -n "$devsim_pid" ]; then
    kill "$devsim_pid" 2>/dev/null || true
    wait "$devsim_pid" 2>/dev/null || true
  fi
  if $installed; then dpkg -P ferrolt >/dev/null 2>&1 || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

# cpack installs what is built, it does not build.
cmake --build "$build" >/dev/null
(cd "$build" && cpack -G DEB -B "$work/out") >"$work/cpack.log" 2>&1 ||
  { cat "$work/cpack.log" >&2; fail "cpack could not make the .deb"; }
deb=$(echo "$work"/out/ferrolt_*.deb)
[ -f "$deb" ] || fail "cpack made no ferrolt_*.deb"

# Debian's own check of the package: no error. Its warnings are printed; the
# ones known are of the package's shape, kept on purpose: one package holds
# the tool and libferrolt.so.1 (no libferrolt1 and -dev split), under
# /usr/lib rather than the multiarch folder.
command -v lintian >/dev/null || fail "lintian is missing: bash scripts/install-deps.sh --tests"
lintian --fail-on error "$deb" >"$work/lintian.log" 2>&1 ||
  { cat "$work/lintian.log" >&2; fail "lintian reports errors on $(basename "$deb")"; }
grep -v 'running with root privileges' "$work/lintian.log" || true

depends=$(dpkg-deb -f "$deb" Depends)
for library in python3 libusb-1.0-0 libzip; do
  [[ $depends == *"$library"* ]] || fail "Depends does not name $library: $depends"
done

dpkg -i "$deb" >"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log" >&2; fail "dpkg -i"; }
installed=true

files=(
  /usr/bin/ferrolt
  /usr/bin/ferrolt-devsim
  /usr/lib/udev/rules.d/70-ferrolt.rules
  /usr/share/man/man1/ferrolt.1.gz
  /usr/share/man/man1/ferrolt-devsim.1.gz
  /usr/share/bash-completion/completions/ferrolt
  /usr/share/doc/ferrolt/README.md
  /usr/share/doc/ferrolt/LICENSE
  /usr/share/doc/ferrolt/copyright
  /usr/share/doc/ferrolt/changelog.gz
  "/usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)/wireshark/plugins/ferrolt.lua"
  /usr/lib/libferrolt.so.1
  /usr/include/ferrolt/ferrolt.h
  /usr/lib/pkgconfig/ferrolt.pc
  /usr/lib/python3/dist-packages/ferrolt/__init__.py
  /usr/lib/python3/dist-packages/ferrolt/_native.py
)
for file in "${files[@]}"; do
  [ -f "$file" ] || fail "$file is not installed"
done
for program in /usr/bin/ferrolt /usr/bin/ferrolt-devsim /usr/lib/libferrolt.so.1; do
  readelf -S "$program" | grep -q '\.symtab' && fail "$program is not stripped"
done
# The default ids, written as udev reads them.
grep -qxF 'SUBSYSTEM=="usb", ATTR{idVendor}=="1209", ATTR{idProduct}=="0001", TAG+="uaccess"' \
  /usr/lib/udev/rules.d/70-ferrolt.rules || fail "the udev rule is not the expected line"
zcat /usr/share/man/man1/ferrolt.1.gz | grep -q '^\.SH EXIT STATUS' || fail "ferrolt.1.gz is not the man page"
# Wireshark loads the dissector for every user, with nothing set by hand.
if command -v tshark >/dev/null; then
  tshark -G plugins 2>/dev/null | grep -q 'ferrolt\.lua' || fail "tshark does not load ferrolt.lua"
fi
completions=$(bash -c 'source /usr/share/bash-completion/completions/ferrolt
  COMP_WORDS=(ferrolt up); COMP_CWORD=1; _ferrolt; echo "${COMPREPLY[*]}"')
[ "$completions" = "upgrade upload" ] || fail "bash completes 'ferrolt up' to '$completions'"

/usr/bin/ferrolt-devsim --socket "$work/device.sock" --root "$work/device" --version 4.5.6 >"$work/devsim.out" 2>&1 &
devsim_pid=$!
for _ in $(seq 100); do
  grep -q listening "$work/devsim.out" 2>/dev/null && break
  sleep 0.05
done
grep -q listening "$work/devsim.out" || { cat "$work/devsim.out" >&2; fail "the installed ferrolt-devsim did not start"; }
status=0
(cd "$work" && FERROLT_EMULATOR=$work/device.sock timeout 60 /usr/bin/ferrolt version) >"$work/version.out" 2>&1 ||
  status=$?
grep -qF "Version - 4.5.6" "$work/version.out" ||
  { cat "$work/version.out" >&2; fail "the installed ferrolt read no version (status $status)"; }
# The library, as a program finds it: through pkg-config, and from the
# system's python3 with nothing set but the emulator.
[[ $(pkg-config --libs ferrolt) == *-lferrolt* ]] || fail "pkg-config --libs ferrolt: $(pkg-config --libs ferrolt 2>&1)"
listing=$(cd / && FERROLT_EMULATOR=$work/device.sock timeout 60 /usr/bin/python3 -c \
  'import ferrolt; print(ferrolt.devices())' 2>&1) || fail "python3 -c 'import ferrolt; ...': $listing"
[[ $listing == *"place='emulator:$work/device.sock'"* ]] || fail "ferrolt.devices() gave $listing"
kill "$devsim_pid"
wait "$devsim_pid" || true
devsim_pid=

dpkg -r ferrolt >"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log" >&2; fail "dpkg -r"; }
installed=false
for file in "${files[@]}" /usr/share/doc/ferrolt; do
  [ ! -e "$file" ] || fail "$file is left after dpkg -r"
done
# A package with a postrm stays known to dpkg until purged; it holds no
# configuration files, so purging it leaves nothing.
dpkg -P ferrolt >"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log" >&2; fail "dpkg -P"; }
status=$(dpkg-query -W -f='${Status}' ferrolt 2>/dev/null || true)
[[ -z $status || $status == *not-installed ]] || fail "dpkg still holds ferrolt after dpkg -P: $status"
echo "deb-test: $(basename "$deb") installs, runs against ferrolt-devsim and removes cleanly"
