#!/bin/sh
# Prepares the VM rung under VM_DIR: the Debian downloads (kept once fetched), our board
# modules built against Debian's armmp headers, and the initramfs with the armhf tvupdate,
# tvservice and tvsim-cuse.
# Usage: prepare.sh VM_DIR HOST_BUILD ARMHF_BUILD
set -eu
here=$(cd "$(dirname "$0")" && pwd)
mkdir -p "$1"
vm=$(cd "$1" && pwd)
host_build=$2
armhf=$3

"$here/fetch.sh" "$vm/fetch"
flavour=$(cat "$vm/fetch/flavour")
src="$vm/fetch/root/usr/src"
mkdir -p "$vm/modules"
cp -u "$here"/modules/Kbuild "$here"/modules/*.c "$vm/modules/"
# The headers' Makefile includes the common headers by their installed path; we reach them
# in the unpacked tree instead (O= is the flavour's build tree).
make -s -C "$src/linux-headers-${flavour%-armmp}-common" O="$src/linux-headers-$flavour" \
    M="$vm/modules" ARCH=arm CROSS_COMPILE=arm-linux-gnueabihf- KERNELRELEASE="$flavour" modules

# The board's own files (the application installer) come from a board tvsim makes.
rm -rf "$vm/board"
"$host_build/tvsim" new "$vm/board" >/dev/null
"$here/initramfs.sh" "$vm/fetch" "$vm/modules" "$armhf" "$vm/board/fs" "$vm/base.cpio.gz"
