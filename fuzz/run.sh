#!/bin/sh
# run.sh TARGET WORK SECONDS SEEDS REGRESSIONS: runs one fuzzing target for SECONDS
# over its seeds and past findings. What it learns goes to WORK/corpus (kept
# between runs), a finding to WORK/findings; the committed folders stay as they are.
# The target's temporary home lives in WORK/tmp, which a crash leaves behind only
# until the next run.
set -eu
target=$1 work=$2 seconds=$3 seeds=$4 regressions=$5
rm -rf "$work/tmp"
mkdir -p "$work/corpus" "$work/findings" "$work/tmp"
TMPDIR="$work/tmp" exec "$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
  -artifact_prefix="$work/findings/" "$work/corpus" "$seeds" "$regressions"
