#!/bin/sh
# Builds the VM's initramfs: busybox, the armhf C library, the UBI tools of mtd-utils, the
# kernel modules a TV board loads (with what they depend on, in load order), our own board
# modules, the board's files of a tvsim board (the application installer), the armhf tvupdate
# and tvservice, the armhf tvsim-cuse (serves the microcontroller's UART from tvsim's model),
# and the VM's init.
# Usage: initramfs.sh FETCH_DIR OUR_MODULES_DIR ARMHF_BUILD BOARD_FS OUT.cpio.gz
set -eu
fetch=$(cd "$1" && pwd)
ours=$(cd "$2" && pwd)
armhf=$3
board_fs=$4
out=$5
here=$(cd "$(dirname "$0")" && pwd)
flavour=$(cat "$fetch/flavour")
root="$fetch/root"
kmods="$root/lib/modules/$flavour"
tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT

mkdir -p "$tree/bin" "$tree/sbin" "$tree/lib/arm-linux-gnueabihf" "$tree/update" "$tree/modules" \
    "$tree/kmod" "$tree/dev" "$tree/proc" "$tree/sys" "$tree/tmp" "$tree/mnt/sdcard" \
    "$tree/results"
for d in app_data model_data jpeg_user jpeg_factory bitmap other; do
    mkdir -p "$tree/mnt/flash/$d"
done
cp "$root/bin/busybox" "$tree/bin/"
cp -L "$root/lib/ld-linux-armhf.so.3" "$tree/lib/"
for lib in libc.so.6 libm.so.6 libgcc_s.so.1; do
    if [ -e "$root/lib/arm-linux-gnueabihf/$lib" ]; then
        cp -L "$root/lib/arm-linux-gnueabihf/$lib" "$tree/lib/arm-linux-gnueabihf/"
    fi
done
for prog in ubiattach ubidetach ubimkvol ubirmvol ubinfo nanddump; do
    cp "$root/usr/sbin/$prog" "$tree/sbin/"
done
# The board keeps its volume tools under /update.
cp "$root/usr/sbin/ubimkvol" "$root/usr/sbin/ubirmvol" "$tree/update/"
cp "$board_fs/update/update_tool.sh" "$tree/update/"
cp "$armhf/tvupdate" "$armhf/tvservice" "$tree/"
# Without its debugging information: a megabyte instead of seventeen to unpack at every boot.
arm-linux-gnueabihf-strip -o "$tree/tvsim-cuse" "$armhf/tvsim-cuse"

# Kernel modules with their dependencies, dependencies first, listed in /kmod/order.
# Copies a module without Debian's signature: the kernel then does not check it (it only notes
# an unsigned module), which spares seconds of RSA in an emulated CPU at every boot.
strip_signature() {
    python3 - "$1" "$2" <<'PY'
import struct, sys
data = open(sys.argv[1], "rb").read()
magic = b"~Module signature appended~\n"
if data.endswith(magic):
    sig_len = struct.unpack(">I", data[-len(magic) - 4:-len(magic)])[0]
    data = data[:-len(magic) - 12 - sig_len]
open(sys.argv[2], "wb").write(data)
PY
}

add_module() {
    local name=$1 path deps dep
    grep -q "^$name\$" "$tree/kmod/order" 2>/dev/null && return 0
    path=$(find "$kmods/kernel" -name "$(echo "$name" | sed 's/[-_]/[-_]/g').ko" | head -1)
    [ -n "$path" ] || { echo "initramfs.sh: no module $name" >&2; exit 1; }
    deps=$(tr '\0' '\n' < "$path" | sed -n 's/^depends=//p' | tr ',' ' ')
    for dep in $deps; do
        add_module "$dep"
    done
    strip_signature "$path" "$tree/kmod/$name.ko"
    echo "$name" >> "$tree/kmod/order"
}
for m in virtio_pci virtio_blk xhci-pci usb-storage sd_mod vfat nls_cp437 nls_ascii nls_utf8 \
    nls_iso8859-1 nandsim ubi deflate zstd ubifs cuse; do
    add_module "$m"
done
# Our own: the control device is part of the board's kernel; the SPI flash drivers sit in
# /modules under the names the board's boot loader step loads.
cp "$ours/tvctl.ko" "$tree/kmod/"
cp "$ours/tvspi.ko" "$tree/modules/vq71206_spi.ko"
cp "$ours/tvflash.ko" "$tree/modules/m25p80.ko"
# The NOR boot flash driver is loaded with modprobe, which looks it up in /lib/modules.
cp "$ours/tvnor.ko" "$tree/modules/physmap.ko"
mkdir -p "$tree/lib/modules/$flavour"
cp "$ours/tvnor.ko" "$tree/lib/modules/$flavour/physmap.ko"
echo "physmap.ko:" > "$tree/lib/modules/$flavour/modules.dep"

cp "$here/init" "$tree/init"
chmod 755 "$tree/init" "$tree/update/update_tool.sh"
(cd "$tree" && find . | sort | cpio -o -H newc --quiet -R 0:0) | gzip -1 > "$out"
