#!/usr/bin/env bash
# Runs one libFuzzer target for a bounded time over its seed corpus.  New
# inputs land in a scratch copy so the repository's corpus stays as committed.
set -euo pipefail
bin=$1 corpus=$2 work=$3 seconds=$4
rm -rf "$work"; mkdir -p "$work/corpus" "$work/artifacts"
[ -d "$corpus" ] && cp -r "$corpus"/. "$work/corpus/"
"$bin" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -malloc_limit_mb=1024 \
  -print_final_stats=1 -artifact_prefix="$work/artifacts/" "$work/corpus" 2>"$work/log" || {
  tail -n 60 "$work/log"; exit 1; }
grep -E 'stat::number_of_executed_units' "$work/log" || true
