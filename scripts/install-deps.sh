#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need, only
# when one is missing.
set -euo pipefail

packages=(cmake ninja-build g++ clang libclang-rt-14-dev pkg-config libgtest-dev libgmock-dev
          libusb-1.0-0-dev libzip-dev zip unzip)
# The libusb backend's tests: an emulated USB bus (umockdev and its preload library).
packages+=(umockdev libumockdev-dev)
# ferrolt-devsim's usbredir front, and the test that runs the tool in a QEMU
# guest against it (its kernel is fetched by tests/kernel/guest.sh, from
# Debian's package of the day, with apt-get download).
packages+=(libusbredirparser-dev qemu-system-x86 busybox-static cpio)
# The Windows build: MinGW-w64 with the posix thread model, GoogleTest's
# sources to build for it, and Wine to run what it builds.
packages+=(g++-mingw-w64-x86-64-posix googletest wine64 wine)

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
