#!/bin/sh
# Measures what the budgets speak of, for the sample medium (small ROM images) and a real-size
# one (2 MiB FPGA ROM images), on the host build and the board build under qemu-arm when built:
# wall time and processor time of a simulated update, system calls per trace event (strace -c,
# all processes of the run), the board time it stands for, the peak memory of the run's largest
# process, and the size of the board binary. Reports; enforces nothing.
# Usage: bench.sh [RUNS]   (from the repository, after make host [and make armhf]; strace and
#                           GNU time (/usr/bin/time) are used where installed)
set -eu
runs=${1:-5}
here=$(cd "$(dirname "$0")/.." && pwd)
tvsim="$here/build/host/tvsim"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$here/tools/make-demo-medium.sh" "$work/small" DEMO-TV >/dev/null
"$here/tools/make-demo-medium.sh" --rom-bytes 2097152 "$work/real-size" DEMO-TV >/dev/null

fresh_board() { # MEDIUM
    rm -rf "$work/board"
    "$tvsim" new "$work/board" --usb "$work/$1" --seed 1 # the same device times every run
}

update() { # TOOL PRELOAD
    "$tvsim" --board "$work/board" --preload "$2" -- "$1" DEMO-TV >/dev/null || true
}

measure() { # NAME MEDIUM TOOL PRELOAD
    total_ns=0
    i=0
    while [ $i -lt "$runs" ]; do
        fresh_board "$2"
        start=$(date +%s%N)
        update "$3" "$4"
        total_ns=$((total_ns + $(date +%s%N) - start))
        i=$((i + 1))
    done
    board_s=$(python3 -c "import json,sys; print(json.load(open(sys.argv[1]))['clock_ns'] / 1e9)" \
        "$work/board/state.json")
    events=$(wc -l < "$work/board/trace.jsonl")
    line="$1 $2: $((total_ns / runs / 1000000)) ms wall per update ($runs runs), board time ${board_s} s, $events trace events"
    if [ -x /usr/bin/time ]; then
        fresh_board "$2"
        # Processor time too: on a machine busy with other work it says more than the wall time.
        set -- "$@" $(/usr/bin/time -f "%M %U %S" sh -c "\"$tvsim\" --board \"$work/board\" --preload \"$4\" -- \"$3\" DEMO-TV >/dev/null 2>&1; true" 2>&1)
        line="$line, peak memory $5 KB, processor time $(python3 -c "print(round($6 + $7, 2))") s"
    fi
    if command -v strace >/dev/null; then
        fresh_board "$2"
        strace -f -c -o "$work/strace.txt" "$tvsim" --board "$work/board" --preload "$4" -- "$3" \
            DEMO-TV >/dev/null || true
        calls=$(awk '$NF == "total" {print $4}' "$work/strace.txt")
        line="$line, $calls system calls ($(python3 -c "print(round($calls / $events, 2))") per trace event)"
    fi
    echo "$line"
}

for medium in small real-size; do
    measure host "$medium" "$here/build/host/tvupdate" "$here/build/host/libtvsim.so"
    if [ -x "$here/build/armhf/tvupdate" ]; then
        measure armhf "$medium" "$here/build/armhf/tvupdate" "$here/build/armhf/libtvsim.so"
    fi
done
if [ -x "$here/build/armhf/tvupdate" ]; then
    arm-linux-gnueabihf-strip -o "$work/tvupdate.stripped" "$here/build/armhf/tvupdate"
    echo "armhf tvupdate: $(stat -c %s "$work/tvupdate.stripped") bytes stripped;" \
        "$(arm-linux-gnueabihf-size "$here/build/armhf/tvupdate" | awk 'NR==2 {print "text " $1 ", data " $2 ", bss " $3}')"
fi
