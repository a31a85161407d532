#!/usr/bin/env bash
# A small Linux guest with a real USB stack: Debian's own kernel (xhci_hcd,
# usbcore, usbfs, usbmon), an initramfs holding busybox, the USB host
# modules and ferrolt, booted under QEMU with a usb-redir device on its xHCI
# controller, where ferrolt-devsim's usbredir front plays the device.
#   guest.sh prepare WORKDIR FERROLT PAYLOAD
#       fetches the kernel into WORKDIR once and builds WORKDIR/initrd.gz:
#       ferrolt with its libraries, PAYLOAD's files in /payload, and an init
#       that loads the modules, waits for the device's interface 4 and runs
#       /payload/run.sh
#   guest.sh boot WORKDIR SOCKET
#       boots it, the usb-redir device connected to the Unix socket SOCKET
#       (retried every second, so the device may come and go); the console
#       on standard output, powered off when run.sh ends
# Exit status 77: this machine has no QEMU, or no kernel can be had.
set -euo pipefail

readonly kSkip=77
# usbmon: the kernel's own capture of the bus (/dev/usbmonN).
readonly kModules=(usb-common usbcore usbmon xhci-hcd xhci-pci)
here=$(cd "$(dirname "$0")" && pwd)

# Whether DIR holds the kernel and every module the guest loads.
have_kernel() {
  local module
  [ -e "$1/vmlinuz" ] || return 1
  for module in "${kModules[@]}"; do [ -e "$1/modules/$module.ko" ] || return 1; done
}

# The kernel that linux-image-amd64 depends on now (its ABI number changes),
# unpacked, keeping only what the guest needs; fetched again when the list
# of modules has grown.
fetch_kernel() {
  local dir=$1/kernel package scratch
  have_kernel "$dir" && return 0
  package=$(apt-cache depends linux-image-amd64 2>/dev/null | sed -n 's/^ *Depends: \(linux-image-[^ ]*\)$/\1/p' | head -n 1)
  [ -n "$package" ] || return 1
  scratch=$(mktemp -d "$1/fetch.XXXXXX")
  if ! (cd "$scratch" && apt-get download -qq "$package" 2>/dev/null) || ! dpkg-deb -x "$scratch"/*.deb "$scratch/root"; then
    rm -rf "$scratch"
    return 1
  fi
  mkdir -p "$dir/modules"
  for module in "${kModules[@]}"; do
    find "$scratch/root/lib/modules" -name "$module.ko" -exec cp {} "$dir/modules/" \;
  done
  cp "$scratch"/root/boot/vmlinuz-* "$dir/vmlinuz"
  rm -rf "$scratch"
}

build_initrd() {
  local work=$1 ferrolt=$2 payload=$3 tree library
  tree=$(mktemp -d "$work/tree.XXXXXX")
  mkdir -p "$tree"/{bin,dev,proc,sys,tmp,lib/modules,payload}
  cp /bin/busybox "$tree/bin/busybox"
  cp "$here/init" "$tree/init"
  chmod +x "$tree/init"
  for module in "${kModules[@]}"; do cp "$work/kernel/modules/$module.ko" "$tree/lib/modules/"; done
  # The program as built, less its debugging sections (a smaller initramfs).
  objcopy --strip-debug "$ferrolt" "$tree/bin/ferrolt"
  for library in $(ldd "$ferrolt" | grep -o '/[^ ]*'); do
    mkdir -p "$tree$(dirname "$library")"
    cp -L "$library" "$tree$library"
  done
  cp -r "$payload"/. "$tree/payload/"
  (cd "$tree" && find . | cpio -o -H newc --quiet | gzip -1) >"$work/initrd.gz"
  rm -rf "$tree"
}

case "${1:-}" in
  prepare)
    [ $# -eq 4 ] || { echo "usage: $0 prepare WORKDIR FERROLT PAYLOAD" >&2; exit 2; }
    command -v qemu-system-x86_64 >/dev/null || { echo "no qemu-system-x86_64" >&2; exit $kSkip; }
    [ -x /bin/busybox ] || { echo "no busybox (busybox-static)" >&2; exit $kSkip; }
    mkdir -p "$2"
    fetch_kernel "$2" || { echo "no kernel package to be had" >&2; exit $kSkip; }
    build_initrd "$2" "$3" "$4"
    ;;
  boot)
    [ $# -eq 3 ] || { echo "usage: $0 boot WORKDIR SOCKET" >&2; exit 2; }
    # TCG: the machine's KVM may be a nested layer too slow to boot this kernel.
    exec qemu-system-x86_64 -accel tcg -m 256 -smp 1 -nodefaults -no-user-config -display none -no-reboot \
      -serial stdio -kernel "$2/kernel/vmlinuz" -initrd "$2/initrd.gz" \
      -append "console=ttyS0 quiet loglevel=1 panic=-1" \
      -device qemu-xhci,id=xhci -chardev "socket,id=redir,path=$3,reconnect=1" \
      -device usb-redir,chardev=redir,bus=xhci.0
    ;;
  *)
    echo "usage: $0 prepare WORKDIR FERROLT PAYLOAD | boot WORKDIR SOCKET" >&2
    exit 2
    ;;
esac
