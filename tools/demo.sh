#!/bin/sh
# Runs tvupdate on a simulated board with a sample medium and shows what changed.
# Usage: demo.sh BUILD_DIR
set -eu
build=$(cd "$1" && pwd)
here=$(cd "$(dirname "$0")/.." && pwd)
demo="$here/demo"
model=DEMO-TV
rm -rf "$demo"
mkdir -p "$demo"
"$here/tools/make-demo-medium.sh" "$demo/medium" "$model"
"$build/tvsim" new "$demo/board" --usb "$demo/medium"

echo "=== tvsim --board demo/board -- tvupdate $model"
status=0
"$build/tvsim" --board "$demo/board" -- "$build/tvupdate" "$model" || status=$?
echo "=== exit status: $status"

echo "=== what changed on the board"
cd "$demo/board"
for vol in flash/*; do
    printf '%-16s %s\n' "$vol" "$(cd "$vol" && find . -type f | sort | tr '\n' ' ')"
done
echo "application installer ran with: $(cat fs/update/last_update_mode.conf 2>/dev/null | tr '\n' ' ')"
for mem in tvm/*.bin; do
    printf '%-16s %6d bytes not erased\n' "$mem" "$(tr -d '\377' < "$mem" | wc -c)"
done
for mem in i2c/*.bin; do
    printf '%-16s %6d bytes not erased\n' "$mem" "$(tr -d '\377' < "$mem" | wc -c)"
done
for part in mtd/*.bin; do
    printf '%-16s %6d bytes not erased\n' "$part" "$(tr -d '\377' < "$part" | wc -c)"
done
for rom in spi_rom*.bin; do
    if [ -e "$rom" ]; then
        printf '%-16s %6d bytes not erased\n' "$rom" "$(tr -d '\377' < "$rom" | wc -c)"
    fi
done
python3 - <<'PY' trace.jsonl state.json
import json, sys
events = [json.loads(l) for l in open(sys.argv[1])]
kinds = {}
for e in events:
    kinds[e["ev"]] = kinds.get(e["ev"], 0) + 1
state = json.load(open(sys.argv[2]))
print("trace events:", ", ".join(f"{k} {v}" for k, v in sorted(kinds.items())))
print("mounted now:", ", ".join(f'{m["source"]} on {m["target"]}' for m in state["mounts"]) or "nothing")
print("board time: %.1f s" % (state["clock_ns"] / 1e9))
PY
echo "=== tvsim --board demo/board report --svg demo/timeline.svg --trace-json demo/trace.json"
"$build/tvsim" --board "$demo/board" report --svg "$demo/timeline.svg" --trace-json "$demo/trace.json"
echo "(board in demo/board: board.json, state.json, trace.jsonl, fs/, flash/;"
echo " its timeline in demo/timeline.svg, the trace for Perfetto or chrome://tracing in demo/trace.json)"
