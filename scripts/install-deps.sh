#!/usr/bin/env bash
# Installs the Debian packages that are missing, and only those.
#   install-deps.sh           what the demo needs: the tool and ferrolt-devsim
#   install-deps.sh --tests   that, and what the tests, the Windows build and
#                             the packages need
set -euo pipefail

# The tool and the emulator: compiler, build tools, the USB library and the
# emulator's zip library; unzip checks the demo's log archive.
packages=(g++ cmake ninja-build pkg-config libusb-1.0-0-dev libzip-dev unzip)

# The test set, a group per need.
test_packages=()
# GoogleTest; clang and its runtime for the fuzzers (libFuzzer); zip for the
# tests' archives; ccache, so the test run's five builds compile only what
# changed since the last run.
test_packages+=(libgtest-dev libgmock-dev clang libclang-rt-14-dev zip ccache)
# The libusb backend's tests: an emulated USB bus (umockdev and its preload library).
test_packages+=(umockdev libumockdev-dev)
# ferrolt-devsim's usbredir front, and the test that runs the tool in a QEMU
# guest against it (its kernel is fetched by tests/kernel/guest.sh, from
# Debian's package of the day, with apt-get download).
test_packages+=(libusbredirparser-dev qemu-system-x86 busybox-static cpio)
# The Windows build: MinGW-w64 with the posix thread model, GoogleTest's
# sources to build for it, and Wine to run what it builds.
test_packages+=(g++-mingw-w64-x86-64-posix googletest wine64 wine)
# ferrolt.exe's HID exports: Debian's hidapi source package (its Windows
# backend, built with MinGW), fetched by apt-get source, which dpkg-dev unpacks.
# The .deb: CPack finds the binaries with file and their library packages
# with dpkg-shlibdeps.
test_packages+=(dpkg-dev file)
# tests/package/deb-test.sh holds the .deb to Debian's lintian.
test_packages+=(lintian)
# The capture tests decode the tool's captures with the Wireshark dissector
# (packaging/wireshark/ferrolt.lua) in tshark.
test_packages+=(tshark)
# The Python package's tests, run by the system's python3.
test_packages+=(python3-pytest)

fetch_hidapi=false
case "${1:-}" in
  "") ;;
  --tests)
    packages+=("${test_packages[@]}")
    fetch_hidapi=true
    ;;
  *)
    echo "usage: $0 [--tests]" >&2
    exit 2
    ;;
esac

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  # Wireshark asks whether users who are not root may capture: no, without asking.
  echo "wireshark-common wireshark-common/install-setuid boolean false" | debconf-set-selections
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# Debian's hidapi sources, unpacked under the build tree (never committed),
# where the MinGW build looks for them (build/hidapi-src/hidapi-*/).
hidapi_parent="$(cd "$(dirname "$0")/.." && pwd)/build/hidapi-src"
deb_src_entries=/etc/apt/sources.list.d/ferrolt-deb-src

# Adds a deb-src entry beside every Debian entry the system already has, with
# the same mirrors, suites, components and keys: deb822 stanzas of "Types: deb"
# and classic "deb" lines alike.
add_deb_src_entries() {
  local file
  for file in /etc/apt/sources.list.d/*.sources; do
    [ -f "$file" ] && [ "$file" != "$deb_src_entries.sources" ] || continue
    awk -v RS= -v ORS='\n\n' '/(^|\n)Types:[^\n]*[ \t]deb([ \t]|\n|$)/ {
      sub(/(^|\n)Types:[^\n]*/, "\nTypes: deb-src"); sub(/^\n/, ""); print }' "$file"
  done >"$deb_src_entries.sources"
  for file in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
    [ -f "$file" ] && [ "$file" != "$deb_src_entries.list" ] || continue
    sed -n 's/^[[:space:]]*deb[[:space:]]/deb-src /p' "$file"
  done >"$deb_src_entries.list"
  # An empty file of either kind says nothing: no need to leave it.
  find "$deb_src_entries".* -empty -delete
}

hidapi_sources() { compgen -G "$hidapi_parent/hidapi-*/windows/hid.c" >/dev/null; }

if $fetch_hidapi && ! hidapi_sources; then
  if ! apt-cache showsrc hidapi 2>/dev/null | grep -q '^Package: hidapi$'; then
    echo "Adding deb-src entries beside the system's Debian entries ($deb_src_entries.*)"
    add_deb_src_entries
    apt-get update -qq
  fi
  rm -rf "$hidapi_parent"
  mkdir -p "$hidapi_parent"
  echo "Fetching Debian's hidapi sources into $hidapi_parent"
  (cd "$hidapi_parent" && apt-get source -qq hidapi >/dev/null 2>&1) || {
    echo "apt-get source hidapi failed: no deb-src entry for Debian?" >&2
    exit 1
  }
  hidapi_sources || { echo "$hidapi_parent holds no hidapi-*/windows/hid.c" >&2; exit 1; }
fi
