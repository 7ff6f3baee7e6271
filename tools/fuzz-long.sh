#!/bin/sh
# Long runs of the fuzz targets, one after the other at the lowest priority, with a table per
# target: executions, coverage (cov: edges reached, ft: features), corpus size and crashes.
# A run stops at its first crash; the input is kept as crash-* (or leak-*, timeout-*) next to
# the run's log.
# Usage: tools/fuzz-long.sh [-r RUNS] [-t SECONDS] [TARGET...]
#   RUNS defaults to 10000000, SECONDS to no limit; TARGET defaults to every target.
# Needs the fuzz build: cmake --preset fuzz && cmake --build --preset fuzz
# Everything goes to build/fuzz/long/TARGET/ (log, grown corpus, findings).
set -eu
cd "$(dirname "$0")/.."
runs=10000000
seconds=0
while getopts r:t: opt; do
    case $opt in
    r) runs=$OPTARG ;;
    t) seconds=$OPTARG ;;
    *) exit 2 ;;
    esac
done
shift $((OPTIND - 1))
bin=build/fuzz/fuzz
[ $# -gt 0 ] || set -- $(sed -n 's/^set(FUZZ_TARGETS \(.*\))$/\1/p' fuzz/CMakeLists.txt)
printf '| target | executions | exec/s | cov | ft | corpus | crashes | seconds |\n'
printf '|---|---:|---:|---:|---:|---:|---:|---:|\n'
for target in "$@"; do
    out=build/fuzz/long/$target
    mkdir -p "$out/corpus"
    rm -f "$out"/crash-* "$out"/leak-* "$out"/timeout-* "$out"/oom-*
    start=$(date +%s)
    status=0
    nice -n 19 "$bin/fuzz_$target" -runs="$runs" -max_total_time="$seconds" -timeout=10 \
        -print_final_stats=1 -dict="fuzz/$target.dict" -artifact_prefix="$out/" \
        "$out/corpus" "fuzz/corpus/$target" >"$out/log" 2>&1 || status=$?
    elapsed=$(($(date +%s) - start))
    executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$out/log" | tail -n 1)
    rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$out/log" | tail -n 1)
    last=$(grep -E '^#[0-9]+.*cov:' "$out/log" | tail -n 1)
    cov=$(echo "$last" | sed -n 's/.* cov: \([0-9]*\).*/\1/p')
    ft=$(echo "$last" | sed -n 's/.* ft: \([0-9]*\).*/\1/p')
    corpus=$(echo "$last" | sed -n 's/.* corp: \([0-9]*\).*/\1/p')
    crashes=$(find "$out" -maxdepth 1 \( -name 'crash-*' -o -name 'leak-*' -o -name 'timeout-*' \
        -o -name 'oom-*' \) | wc -l)
    [ "$status" -eq 0 ] || [ "$crashes" -gt 0 ] || crashes="exit $status"
    printf '| %s | %s | %s | %s | %s | %s | %s | %s |\n' "$target" "${executions:-?}" "${rate:-?}" \
        "${cov:-?}" "${ft:-?}" "${corpus:-?}" "$crashes" "$elapsed"
done
