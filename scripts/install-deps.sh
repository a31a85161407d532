#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the demo need, only
# when one is missing.
set -euo pipefail

packages=(cmake ninja-build g++ clang libclang-rt-14-dev pkg-config libgtest-dev libgmock-dev
          libusb-1.0-0-dev libzip-dev zip unzip libbenchmark-dev)

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
