# Wall-clock helpers for the benchmark scripts; sourced, never run alone.
#   best               the smallest of the numbers on standard input
#   seconds CMD...     the wall time of CMD in seconds, its output discarded
#   bestof N CMD...    the best of N runs of CMD

best() { sort -g | head -n 1; }

seconds() {
  local start end
  start=$(date +%s.%N); "$@" >/dev/null; end=$(date +%s.%N)
  awk -v a="$start" -v b="$end" 'BEGIN { printf "%.6f\n", b - a }'
}

bestof() {
  local n=$1 i
  shift
  for ((i = 0; i < n; i++)); do seconds "$@"; done | best
}
