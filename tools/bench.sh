#!/bin/sh
# Measures what the budgets speak of: wall time of a simulated update of the sample medium
# (host build, and the board build under qemu-arm when built), the board time it stands for,
# and the size of the board binary. Reports; enforces nothing.
# Usage: bench.sh [RUNS]   (from the repository, after make host [and make armhf])
set -eu
runs=${1:-20}
here=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$here/tools/make-demo-medium.sh" "$work/medium" DEMO-TV >/dev/null

measure() { # NAME TOOL PRELOAD
    "$here/build/host/tvsim" new "$work/$1" --usb "$work/medium"
    start=$(date +%s%N)
    i=0
    while [ $i -lt "$runs" ]; do
        "$here/build/host/tvsim" --board "$work/$1" reboot
        "$here/build/host/tvsim" --board "$work/$1" --preload "$3" -- "$2" DEMO-TV >/dev/null
        i=$((i + 1))
    done
    end=$(date +%s%N)
    board_ms=$(python3 -c "import json,sys; print(json.load(open(sys.argv[1]))['clock_ns'] / 1e6)" \
        "$work/$1/state.json")
    echo "$1: $(( (end - start) / runs / 1000000 )) ms wall per update ($runs runs), board time ${board_ms} ms"
}

measure host "$here/build/host/tvupdate" "$here/build/host/libtvsim.so"
if [ -x "$here/build/armhf/tvupdate" ]; then
    measure armhf "$here/build/armhf/tvupdate" "$here/build/armhf/libtvsim.so"
    arm-linux-gnueabihf-strip -o "$work/tvupdate.stripped" "$here/build/armhf/tvupdate"
    echo "armhf tvupdate: $(stat -c %s "$work/tvupdate.stripped") bytes stripped;" \
        "$(arm-linux-gnueabihf-size "$here/build/armhf/tvupdate" | awk 'NR==2 {print "text " $1 ", data " $2 ", bss " $3}')"
fi
