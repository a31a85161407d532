#!/usr/bin/env bash
# Starts ferrolt.exe under Wine the way the end-to-end suite starts the Linux
# tool: the same arguments, standard output with its CRLF line ends turned
# into LF as it comes (a bare carriage return, as the upload's progress
# prints it, stays), and the program's exit status.
#   ferrolt-under-wine.sh FERROLT_EXE ARGS...
set -o pipefail
exe=$1
shift
wine "$exe" "$@" | sed -u 's/\r$//'
