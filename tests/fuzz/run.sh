#!/bin/sh
# Runs every fuzz target of a fuzz build for SECONDS each (default 60), from its committed corpus
# (tests/fuzz/corpus/NAME). New inputs go to BUILD/corpus/NAME, never into the committed corpus; an input
# that finds a fault is kept as BUILD/findings/NAME-crash-... (or -leak-, -timeout-, -oom-) and fails the
# run. Further arguments go to every target: -fork=1 -ignore_crashes=1 for a campaign that goes on.
set -eu
build=$1
seconds=${2:-60}
shift $(($# < 2 ? $# : 2))
corpus=$(cd "$(dirname "$0")" && pwd)/corpus
mkdir -p "$build/findings"
started=$build/findings/.started
for target in "$build"/bin/*_fuzzer; do
    name=$(basename "$target" _fuzzer)
    log=$build/findings/$name.log
    mkdir -p "$build/corpus/$name"
    touch "$started"
    echo "== $name: $seconds s"
    status=0
    "$target" -max_total_time="$seconds" -print_final_stats=1 -artifact_prefix="$build/findings/$name-" "$@" \
        "$build/corpus/$name" "$corpus/$name" >"$log" 2>&1 || status=$?
    # The totals: a plain run's final line and stats, or a forking run's last progress line.
    grep -E '^#[0-9]+.*DONE|^stat::number_of_executed_units' "$log" || grep -E '^#[0-9]+:' "$log" | tail -n 1 || true
    found=$(find "$build/findings" -name "$name-*" -newer "$started" ! -name '*.log')
    if [ "$status" != 0 ] || [ -n "$found" ]; then
        tail -n 40 "$log"
        echo "$name: a fault was found (exit status $status): ${found:-see $log}"
        exit 1
    fi
done
