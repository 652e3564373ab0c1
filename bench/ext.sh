#!/usr/bin/env bash
# bench/ext.sh BENCH_BUILD_DIR: a 512 MiB file read from an ext4 image
# (4 KiB blocks, extents) through the loader's own disk, mount and driver
# code (loader-tool cat) against grub-fstest's ext reader on the same image
# and against reading 512 MiB of the image file itself sequentially, side
# by side.  Best of five runs each, image in the page cache; prints times,
# throughput and the ratios (goals: at least 0.8x the raw read, at least 2x
# grub-fstest).  A block-mapped ext2 image of the same file follows, since
# its indirect blocks cut the runs that one read may span.
set -euo pipefail
dir=${1:?usage: bench/ext.sh BENCH_BUILD_DIR}
tool=$dir/loader-tool
[ -x "$tool" ] || { echo "ext: $tool is missing" >&2; exit 1; }
for t in mke2fs grub-fstest; do command -v $t >/dev/null || { echo "ext: $t is missing" >&2; exit 1; }; done
tmp=$(mktemp -d); trap 'rm -rf "$tmp"' EXIT
mib=512

mkdir "$tmp/src"
head -c $((mib << 20)) /dev/urandom >"$tmp/src/big.bin"
mke2fs -q -F -t ext4 -b 4096 -d "$tmp/src" "$tmp/ext4.img" $(((mib + 64) * 1024))k >/dev/null
mke2fs -q -F -t ext2 -b 4096 -d "$tmp/src" "$tmp/ext2.img" $(((mib + 64) * 1024))k >/dev/null

# All read the same bytes; the loader's must be exactly the file.
for img in ext4 ext2; do
  "$tool" cat "$tmp/$img.img" /big.bin | cmp -s - "$tmp/src/big.bin" ||
    { echo "ext: loader-tool cat differs from the file on $img" >&2; exit 1; }
done
grub-fstest "$tmp/ext4.img" cat /big.bin | cmp -s - "$tmp/src/big.bin" ||
  { echo "ext: grub-fstest cat differs from the file" >&2; exit 1; }
rm -rf "$tmp/src"

source "$(dirname "$0")/lib/timing.sh"
time5() { bestof 5 "$@"; }

raw=$(time5 dd if="$tmp/ext4.img" of=/dev/stdout bs=4M count=$((mib / 4)) status=none)
loader=$(time5 "$tool" cat "$tmp/ext4.img" /big.bin)
maps=$(time5 "$tool" cat "$tmp/ext2.img" /big.bin)
grub=$(time5 grub-fstest "$tmp/ext4.img" cat /big.bin)
awk -v r="$raw" -v l="$loader" -v b="$maps" -v g="$grub" -v m="$mib" 'BEGIN {
  printf "raw image read (dd, 4 MiB):          %.3f s  %5.0f MiB/s\n", r, m / r
  printf "loader-tool cat (ext4, extents):     %.3f s  %5.0f MiB/s\n", l, m / l
  printf "loader-tool cat (ext2, block maps):  %.3f s  %5.0f MiB/s\n", b, m / b
  printf "grub-fstest cat (ext4):              %.3f s  %5.0f MiB/s\n", g, m / g
  printf "loader/raw throughput: %.2fx (goal: at least 0.80x)\n", r / l
  printf "loader/grub-fstest throughput: %.2fx (goal: at least 2x)\n", g / l
}'
