#!/usr/bin/env bash
# The drive's speed beside rclone and cp, on this machine, in one run: 10,000 files of 4 KiB and
# one large file (1 GiB unless QN_DRIVE_BENCH_LARGE_MIB says otherwise) copied from one directory
# to another by `rclone copy` and `cp`, then the drive's benchmark on the same sizes.
# Usage: scripts/drive-bench.sh   (installs rclone with apt-get when it is missing)
set -euo pipefail
cd "$(dirname "$0")/.."
if ! command -v rclone >/dev/null; then
    sudo=""
    [ "$(id -u)" -eq 0 ] || sudo="sudo"
    export DEBIAN_FRONTEND=noninteractive
    $sudo apt-get update -qq
    $sudo apt-get install -y -qq --no-install-recommends rclone >/dev/null
fi
scripts/setup.sh >/dev/null
work=$(mktemp -d /var/tmp/drive-bench-XXXXXX)
trap 'rm -rf "$work"' EXIT
mib=${QN_DRIVE_BENCH_LARGE_MIB:-1024}

mkdir -p "$work/small" "$work/large"
for i in $(seq -f %05g 0 9999); do printf '%4096s' s >"$work/small/f$i.txt"; done
head -c "${mib}M" /dev/urandom >"$work/large/large.bin"
sync

# Seconds that the command given takes.
timed() {
    local start end
    start=$(date +%s.%N)
    "$@"
    end=$(date +%s.%N)
    awk -v s="$start" -v e="$end" 'BEGIN { printf "%.3f", e - s }'
}
sync
rclone_small=$(timed rclone copy -q "$work/small" "$work/rclone-small")
sync
rclone_large=$(timed rclone copy -q "$work/large" "$work/rclone-large")
sync
cp_large=$(timed cp "$work/large/large.bin" "$work/cp-large.bin")
rm -rf "$work/rclone-small" "$work/rclone-large" "$work/cp-large.bin"

echo "rclone copy, 10,000 files of 4 KiB:  ${rclone_small} s"
echo "rclone copy, ${mib} MiB:              ${rclone_large} s"
echo "cp, ${mib} MiB:                       ${cp_large} s"
sync
QN_DRIVE_BENCH_DIR="$work" QN_DRIVE_BENCH_LARGE_MIB="$mib" build/default/bench/qn_drive_bench
