#!/usr/bin/env bash
# Runs the seeded randomized tests with fresh seeds, longer walks each, until the time is up.
# Usage: scripts/soak.sh SECONDS [default|asan|tsan]   (builds the preset first)
# A failure names its seed; QN_RANDOM_SYNC_SEED or QN_RANDOM_DOWNLOADS_SEED replays it.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:?usage: scripts/soak.sh SECONDS [preset]}
preset=${2:-default}
scripts/setup.sh "$preset"
tests=build/$preset/tests/QNiCloud/qnicloud_tests
end=$((SECONDS + seconds))
seed=$(( $(date +%s) % 100000 * 100 ))
log=$(mktemp)
trap 'rm -f "$log"' EXIT
# One walk: NAME (SYNC or DOWNLOADS) and the test suite it drives.
walk() {
    if ! env "QN_RANDOM_$1_SEED=$seed" "QN_RANDOM_$1_STEPS=3000" "$tests" --gtest_brief=1 \
        --gtest_filter="Seeds/$2.*" >"$log" 2>&1; then
        tail -n 40 "$log" >&2
        echo "soak: failed with QN_RANDOM_$1_SEED=$seed QN_RANDOM_$1_STEPS=3000 ($preset)" >&2
        exit 1
    fi
}
runs=0
while ((SECONDS < end)); do
    seed=$((seed + 1))
    walk SYNC QNiCloudCacheSynchronisationRandomTest
    walk DOWNLOADS QNiCloudDownloadsManagerRandomTest
    runs=$((runs + 1))
done
echo "soak: $runs seeds of each randomized test passed in ${SECONDS}s ($preset)"
