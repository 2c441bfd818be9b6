#!/usr/bin/env bash
# Runs a libFuzzer target for SECONDS seconds from its seed corpus (fuzz/corpus/TARGET) and a
# working corpus kept in build/fuzz/corpus/TARGET between runs; "all" runs each target in turn.
# Findings are written to build/fuzz/findings/ and fail the run.
# Usage: scripts/fuzz.sh TARGET|all SECONDS
set -euo pipefail
cd "$(dirname "$0")/.."
target=${1:?usage: scripts/fuzz.sh TARGET|all SECONDS}
seconds=${2:?usage: scripts/fuzz.sh TARGET|all SECONDS}
scripts/setup.sh fuzz >/dev/null
# Scratch files (the journal target writes one for each input) go to memory when it can hold
# them: on a disk, the journal's syncs halve its executions.
if [ -z "${TMPDIR:-}" ] && [ -d /dev/shm ] && [ -w /dev/shm ]; then
    export TMPDIR=/dev/shm
fi
targets=("$target")
[ "$target" != all ] || mapfile -t targets < <(ls fuzz/corpus)
mkdir -p build/fuzz/findings
for t in "${targets[@]}"; do
    mkdir -p "build/fuzz/corpus/$t"
    echo "fuzzing $t for ${seconds}s"
    status=0
    "build/fuzz/fuzz/$t" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=4096 \
        -print_final_stats=1 -artifact_prefix="build/fuzz/findings/$t-" \
        "build/fuzz/corpus/$t" "fuzz/corpus/$t" >"build/fuzz/$t.log" 2>&1 || status=$?
    grep -E '^(stat::number_of_executed_units|stat::average_exec_per_sec|SUMMARY|property failed|  [ab]: )' \
        "build/fuzz/$t.log" || true
    if [ "$status" -ne 0 ]; then
        tail -n 40 "build/fuzz/$t.log" >&2
        echo "fuzzing $t found a failure: see build/fuzz/findings and build/fuzz/$t.log" >&2
        exit 1
    fi
done
