#!/usr/bin/env bash
# Writes a sample upgrade bundle: the header line that names its version,
# then SIZE bytes of image data (random, so nothing compresses it away).
#   make-bundle.sh OUTPUT [VERSION] [SIZE]
# The device stores any bundle; one opening with
# "FERROLT-BUNDLE version=X.Y.Z" and a line end reports X.Y.Z as its version
# once installed.
set -euo pipefail

if [ $# -lt 1 ] || [ $# -gt 3 ]; then
  echo "usage: $0 OUTPUT [VERSION] [SIZE]" >&2
  exit 2
fi
output=$1
version=${2:-1.1.0}
size=${3:-1048576}

if ! [[ $version =~ ^[A-Za-z0-9._+-]{1,40}$ ]]; then
  echo "version must be 1 to 40 letters, digits, '.', '_', '+' or '-'" >&2
  exit 2
fi
if ! [[ $size =~ ^[0-9]+$ ]]; then
  echo "size must be a number of bytes" >&2
  exit 2
fi

{
  printf 'FERROLT-BUNDLE version=%s\n' "$version"
  head -c "$size" /dev/urandom
} >"$output"
echo "wrote $output: version $version, $(stat -c %s "$output") bytes" >&2
