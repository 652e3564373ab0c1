#!/usr/bin/env bash
# bench/xfs.sh BENCH_BUILD_DIR: a 256 MiB file read from XFS images of both
# versions through the loader's own disk, mount and driver code
# (loader-tool cat) against reading 256 MiB of the image file itself
# sequentially, and against grub-fstest's XFS reader on the same v5 image.
# Best of five runs each, image in the page cache; prints times, throughput
# and the ratios (goals: at least 0.8x the raw read and 2x grub-fstest).
# mkfs.xfs writes a protofile's file as one extent inside one allocation
# group, so the volume has two groups of 512 MiB to hold it whole.
set -euo pipefail
dir=${1:?usage: bench/xfs.sh BENCH_BUILD_DIR}
tool=$dir/loader-tool
[ -x "$tool" ] || { echo "xfs: $tool is missing" >&2; exit 1; }
for t in mkfs.xfs grub-fstest; do command -v $t >/dev/null || { echo "xfs: $t is missing" >&2; exit 1; }; done
tmp=$(mktemp -d); trap 'rm -rf "$tmp"' EXIT
mib=256

head -c $((mib << 20)) /dev/urandom >"$tmp/big.bin"
printf 'bench\n0 0\nd--755 0 0\nbig.bin ---644 0 0 %s\n$\n' "$tmp/big.bin" >"$tmp/proto"
for v in "v5 -m crc=1,bigtime=0" "v4 -m crc=0"; do
  read -r name options <<<"$v"
  truncate -s 1G "$tmp/$name.img"
  # shellcheck disable=SC2086
  mkfs.xfs -q -f $options -d agcount=2 -p "$tmp/proto" "$tmp/$name.img" >/dev/null 2>&1
  "$tool" cat "$tmp/$name.img" /big.bin | cmp -s - "$tmp/big.bin" ||
    { echo "xfs: loader-tool cat differs from the file on $name" >&2; exit 1; }
done
grub-fstest "$tmp/v5.img" cat /big.bin | cmp -s - "$tmp/big.bin" ||
  { echo "xfs: grub-fstest cat differs from the file" >&2; exit 1; }
rm -f "$tmp/big.bin"

source "$(dirname "$0")/lib/timing.sh"
time5() { bestof 5 "$@"; }

raw=$(time5 dd if="$tmp/v5.img" of=/dev/stdout bs=4M count=$((mib / 4)) status=none)
v5=$(time5 "$tool" cat "$tmp/v5.img" /big.bin)
v4=$(time5 "$tool" cat "$tmp/v4.img" /big.bin)
grub=$(time5 grub-fstest "$tmp/v5.img" cat /big.bin)
awk -v r="$raw" -v a="$v5" -v b="$v4" -v g="$grub" -v m="$mib" 'BEGIN {
  printf "raw image read (dd, 4 MiB):   %.3f s  %5.0f MiB/s\n", r, m / r
  printf "loader-tool cat (XFS v5):     %.3f s  %5.0f MiB/s\n", a, m / a
  printf "loader-tool cat (XFS v4):     %.3f s  %5.0f MiB/s\n", b, m / b
  printf "grub-fstest cat (XFS v5):     %.3f s  %5.0f MiB/s\n", g, m / g
  printf "loader/raw throughput: %.2fx v5, %.2fx v4 (goal: at least 0.80x)\n", r / a, r / b
  printf "loader/grub-fstest throughput: %.2fx (goal: at least 2x)\n", g / a
}'
