#!/usr/bin/env bash
# bench/fat.sh BENCH_BUILD_DIR: a 512 MiB file read from a FAT32 image
# through the loader's own disk, mount and driver code (loader-tool cat)
# against grub-fstest's FAT reader on the same image and against reading
# 512 MiB of the image file itself sequentially, side by side.  Best of five
# runs each, image in the page cache; prints times, throughput and the
# ratios (goals: at least 0.8x the raw read, at least 2x grub-fstest).
set -euo pipefail
dir=${1:?usage: bench/fat.sh BENCH_BUILD_DIR}
tool=$dir/loader-tool
[ -x "$tool" ] || { echo "fat: $tool is missing" >&2; exit 1; }
for t in mkfs.fat mcopy grub-fstest; do command -v $t >/dev/null || { echo "fat: $t is missing" >&2; exit 1; }; done
tmp=$(mktemp -d); trap 'rm -rf "$tmp"' EXIT
export MTOOLS_SKIP_CHECK=1
mib=512

# 4 KiB clusters, as mkfs.fat chooses for a volume of this size.
head -c $((mib << 20)) /dev/urandom >"$tmp/big.bin"
mkfs.fat -C -F 32 -s 8 -n BENCH "$tmp/fat32.img" $(((mib + 64) * 1024)) >/dev/null
mcopy -i "$tmp/fat32.img" "$tmp/big.bin" ::/big.bin

# All three read the same bytes; the loader's must be exactly the file.
"$tool" cat "$tmp/fat32.img" /big.bin | cmp -s - "$tmp/big.bin" ||
  { echo "fat: loader-tool cat differs from the file" >&2; exit 1; }
grub-fstest "$tmp/fat32.img" cat /big.bin | cmp -s - "$tmp/big.bin" ||
  { echo "fat: grub-fstest cat differs from the file" >&2; exit 1; }
rm -f "$tmp/big.bin"

source "$(dirname "$0")/lib/timing.sh"
time5() { bestof 5 "$@"; }

raw=$(time5 dd if="$tmp/fat32.img" of=/dev/stdout bs=4M count=$((mib / 4)) status=none)
loader=$(time5 "$tool" cat "$tmp/fat32.img" /big.bin)
grub=$(time5 grub-fstest "$tmp/fat32.img" cat /big.bin)
awk -v r="$raw" -v l="$loader" -v g="$grub" -v m="$mib" 'BEGIN {
  printf "raw image read (dd, 4 MiB):        %.3f s  %5.0f MiB/s\n", r, m / r
  printf "loader-tool cat (FAT32 driver):    %.3f s  %5.0f MiB/s\n", l, m / l
  printf "grub-fstest cat:                   %.3f s  %5.0f MiB/s\n", g, m / g
  printf "loader/raw throughput: %.2fx (goal: at least 0.80x)\n", r / l
  printf "loader/grub-fstest throughput: %.2fx (goal: at least 2x)\n", g / l
}'
