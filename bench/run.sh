#!/usr/bin/env bash
# bench/run.sh BENCH_BUILD_DIR: runs every bench/*.sh (but this one) with the
# benchmark build's directory, then the Google Benchmark binary if one was
# built.  Each script prints its own comparison.
set -euo pipefail
dir=${1:?usage: bench/run.sh BENCH_BUILD_DIR}
here=$(cd "$(dirname "$0")" && pwd)
status=0
for script in "$here"/*.sh; do
  [ "$(basename "$script")" = run.sh ] && continue
  echo "== $(basename "$script" .sh)"
  bash "$script" "$dir" || status=1
done
if [ -x "$dir/loader-bench" ]; then
  echo "== loader-bench"
  "$dir/loader-bench" || status=1
fi
exit $status
