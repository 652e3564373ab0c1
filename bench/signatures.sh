#!/usr/bin/env bash
# bench/signatures.sh BENCH_BUILD_DIR: the loader's digest check of a file
# (IsHashValid, through loader-tool bench-hash) against sha256sum over the
# same 256 MiB file, side by side.  Best of five runs each, file in the page
# cache; prints both times and the ratio (goal: within 1.1x).
set -euo pipefail
dir=${1:?usage: bench/signatures.sh BENCH_BUILD_DIR}
tool=$dir/loader-tool
[ -x "$tool" ] || { echo "signatures: $tool is missing" >&2; exit 1; }
tmp=$(mktemp -d); trap 'rm -rf "$tmp"' EXIT
file=$tmp/data
head -c $((256 << 20)) /dev/urandom >"$file"

best() { sort -g | head -n 1; }
seconds() {  # wall time of "$@" in seconds
  local start end
  start=$(date +%s.%N); "$@" >/dev/null; end=$(date +%s.%N)
  awk -v a="$start" -v b="$end" 'BEGIN { printf "%.6f\n", b - a }'
}

digest=$(sha256sum "$file" | cut -d' ' -f1)
"$tool" bench-hash "$file" "$digest" >/dev/null  # warm the cache; checks the result too
loader=$(for _ in 1 2 3 4 5; do seconds "$tool" bench-hash "$file" "$digest"; done | best)
coreutils=$(for _ in 1 2 3 4 5; do seconds sha256sum "$file"; done | best)
awk -v l="$loader" -v c="$coreutils" 'BEGIN {
  printf "IsHashValid (loader-tool bench-hash): %.3f s  %4.0f MiB/s\n", l, 256 / l
  printf "sha256sum:                            %.3f s  %4.0f MiB/s\n", c, 256 / c
  printf "ratio loader/sha256sum: %.2fx (goal: at most 1.10x)\n", l / c
}'
