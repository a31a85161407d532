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
# tests' archives.
test_packages+=(libgtest-dev libgmock-dev clang libclang-rt-14-dev zip)
# The libusb backend's tests: an emulated USB bus (umockdev and its preload library).
test_packages+=(umockdev libumockdev-dev)
# ferrolt-devsim's usbredir front, and the test that runs the tool in a QEMU
# guest against it (its kernel is fetched by tests/kernel/guest.sh, from
# Debian's package of the day, with apt-get download).
test_packages+=(libusbredirparser-dev qemu-system-x86 busybox-static cpio)
# The Windows build: MinGW-w64 with the posix thread model, GoogleTest's
# sources to build for it, and Wine to run what it builds.
test_packages+=(g++-mingw-w64-x86-64-posix googletest wine64 wine)
# The .deb: CPack finds the binaries with file and their library packages
# with dpkg-shlibdeps.
test_packages+=(dpkg-dev file)

case "${1:-}" in
  "") ;;
  --tests) packages+=("${test_packages[@]}") ;;
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
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
