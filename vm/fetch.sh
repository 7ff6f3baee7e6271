#!/bin/sh
# Downloads the Debian packages the VM rung needs (the armhf kernel and its modules, busybox,
# the C library, mtd-utils, and what building our own kernel modules takes) with apt-get, using
# a private package list under OUT so the machine's own apt state and architectures stay as
# they are, and unpacks each into OUT/root (nothing is installed on this machine).
# Usage: fetch.sh OUT        (idempotent: a finished fetch is kept)
set -eu
out=$(mkdir -p "$1" && cd "$1" && pwd)
[ -e "$out/fetched" ] && exit 0
apt="$out/apt"
mkdir -p "$apt/lists/partial" "$apt/archives/partial" "$out/debs" "$out/root"
: > "$apt/status"
cat > "$apt/sources.list" <<LIST
deb [arch=armhf,amd64 signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] http://deb.debian.org/debian bookworm main
LIST
set -- -o Dir::State="$apt" -o Dir::State::Lists="$apt/lists" -o Dir::State::status="$apt/status" \
    -o Dir::Cache="$apt" -o Dir::Etc::SourceList="$apt/sources.list" -o Dir::Etc::SourceParts=/dev/null \
    -o APT::Architecture=armhf -o APT::Architectures::=armhf -o APT::Architectures::=amd64 \
    -o APT::Sandbox::User=root -qq
apt-get "$@" update
# The kernel flavour the metapackage points at today, e.g. linux-image-6.1.0-50-armmp.
image=$(apt-cache "$@" depends linux-image-armmp:armhf | sed -n 's/.*Depends: \(linux-image-[^ ]*-armmp\)$/\1/p' | head -1)
flavour=${image#linux-image-}
abi=${flavour%-armmp}
[ -n "$image" ] || { echo "fetch.sh: no linux-image-armmp in the package list" >&2; exit 1; }
(cd "$out/debs" && apt-get "$@" download "$image:armhf" "linux-headers-$flavour:armhf" \
    "linux-headers-$abi-common" "linux-kbuild-6.1:amd64" busybox-static:armhf libc6:armhf \
    mtd-utils:armhf)
for deb in "$out"/debs/*.deb; do
    dpkg-deb -x "$deb" "$out/root"
done
echo "$flavour" > "$out/flavour"
touch "$out/fetched"
