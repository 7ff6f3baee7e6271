#!/bin/sh
# The VM rung: prepares the VM (downloads from Debian once, under build/vm) and runs every
# scenario on tvsim and on Debian's armmp kernel with each board build (hard-float, then
# soft-float with Debian's armel C library), comparing each with tvsim.
# Usage: check.sh [--if-possible] HOST_BUILD ARMHF_BUILD ARMEL_BUILD [SCENARIO...]
#   --if-possible: skip (exit 0, with a message) when qemu-system-arm or the downloads are
#   not available, instead of failing.
set -eu
here=$(cd "$(dirname "$0")" && pwd)
optional=0
if [ "${1:-}" = --if-possible ]; then
    optional=1
    shift
fi
host_build=$(cd "$1" && pwd)
armhf_build=$(cd "$2" && pwd)
armel_build=$(cd "$3" && pwd)
shift 3
vm="$here/../build/vm"
skip() {
    if [ "$optional" = 1 ]; then
        echo "VM rung skipped: $*"
        exit 0
    fi
    echo "VM rung cannot run: $*" >&2
    exit 1
}
for prog in qemu-system-arm mkfs.vfat mcopy cpio apt-get python3; do
    command -v "$prog" >/dev/null || skip "$prog is not installed"
done
if ! "$here/fetch.sh" "$vm/fetch"; then
    skip "the Debian packages could not be downloaded"
fi
"$here/prepare.sh" "$vm" "$host_build" "$armhf_build"
exec python3 "$here/rung.py" --host-build "$host_build" --vm-dir "$vm" --armel-build "$armel_build" "$@"
