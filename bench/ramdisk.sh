#!/usr/bin/env bash
# bench/ramdisk.sh BENCH_BUILD_DIR: a 128 MiB RAM disk of real files, as
# gzip and as xz, decoded through the loader's own streams (loader-tool
# ramdisk cat: reader, cpio walk and copy-out) against zcat and xzcat on the
# same files, and the plain archive read raw the same two ways.  Best of
# three runs each, files in the page cache; prints times, throughput of the
# decoded data and the ratios (goal: within 1.2x of zcat and xzcat).
set -euo pipefail
dir=${1:?usage: bench/ramdisk.sh BENCH_BUILD_DIR}
tool=$dir/loader-tool
[ -x "$tool" ] || { echo "ramdisk: $tool is missing" >&2; exit 1; }
for t in cpio gzip xz zcat xzcat; do command -v $t >/dev/null || { echo "ramdisk: $t is missing" >&2; exit 1; }; done
tmp=$(mktemp -d); trap 'rm -rf "$tmp"' EXIT
target=$((128 << 20))

# Real files (libraries, data, text) until the archive reaches 128 MiB.
(cd / && find usr/lib usr/share usr/bin -xdev -type f -size -16M -readable -printf '%s %p\n' 2>/dev/null |
  LC_ALL=C sort -k 2 >"$tmp/files" || true)
awk -v limit=$target '{ size = $1; sub(/^[0-9]+ /, "");
                        if (total + size + 512 > limit) next; total += size + 512; print }' \
  "$tmp/files" >"$tmp/list"
(cd / && cpio -o -H newc --quiet <"$tmp/list") >"$tmp/ramdisk.cpio"
size=$(stat -c %s "$tmp/ramdisk.cpio")
gzip -6 -c "$tmp/ramdisk.cpio" >"$tmp/ramdisk.gz"
xz -6 -T0 --check=crc32 -c "$tmp/ramdisk.cpio" >"$tmp/ramdisk.xz"

source "$(dirname "$0")/lib/timing.sh"
time3() { bestof 3 "$@"; }

# The loader's decoding must give what the reference tools give.
# A plain archive is copied up to its trailer, a decoded one whole.
trailer_end=$(( $(grep -abo 'TRAILER!!!' "$tmp/ramdisk.cpio" | tail -n 1 | cut -d: -f1) + 14 ))
cmp -s <("$tool" ramdisk cat "$tmp/ramdisk.cpio") <(head -c "$trailer_end" "$tmp/ramdisk.cpio") &&
  cmp -s <("$tool" ramdisk cat "$tmp/ramdisk.gz") "$tmp/ramdisk.cpio" &&
  cmp -s <("$tool" ramdisk cat "$tmp/ramdisk.xz") "$tmp/ramdisk.cpio" ||
  { echo "ramdisk: loader-tool ramdisk cat differs from the archive" >&2; exit 1; }

raw_cat=$(time3 cat "$tmp/ramdisk.cpio")
raw_loader=$(time3 "$tool" ramdisk cat "$tmp/ramdisk.cpio")
zcat_t=$(time3 zcat "$tmp/ramdisk.gz")
gz_loader=$(time3 "$tool" ramdisk cat "$tmp/ramdisk.gz")
xzcat_t=$(time3 xzcat "$tmp/ramdisk.xz")
xz_loader=$(time3 "$tool" ramdisk cat "$tmp/ramdisk.xz")
gz_ls=$(time3 "$tool" ramdisk ls "$tmp/ramdisk.gz")
xz_ls=$(time3 "$tool" ramdisk ls "$tmp/ramdisk.xz")

awk -v n="$size" -v gz="$(stat -c %s "$tmp/ramdisk.gz")" -v xz="$(stat -c %s "$tmp/ramdisk.xz")" \
    -v rc="$raw_cat" -v rl="$raw_loader" -v zc="$zcat_t" -v gl="$gz_loader" -v xc="$xzcat_t" \
    -v xl="$xz_loader" -v gs="$gz_ls" -v xs="$xz_ls" 'BEGIN {
  m = n / 1048576
  printf "RAM disk: %.1f MiB cpio, %.1f MiB gzip -6, %.1f MiB xz -6\n", m, gz / 1048576, xz / 1048576
  printf "%-36s %7.3f s  %6.0f MiB/s\n", "plain, cat:", rc, m / rc
  printf "%-36s %7.3f s  %6.0f MiB/s\n", "plain, loader-tool ramdisk cat:", rl, m / rl
  printf "%-36s %7.3f s  %6.0f MiB/s\n", "gzip, zcat:", zc, m / zc
  printf "%-36s %7.3f s  %6.0f MiB/s\n", "gzip, loader-tool ramdisk cat:", gl, m / gl
  printf "%-36s %7.3f s  %6.0f MiB/s\n", "gzip, loader-tool ramdisk ls:", gs, m / gs
  printf "%-36s %7.3f s  %6.0f MiB/s\n", "xz, xzcat:", xc, m / xc
  printf "%-36s %7.3f s  %6.0f MiB/s\n", "xz, loader-tool ramdisk cat:", xl, m / xl
  printf "%-36s %7.3f s  %6.0f MiB/s\n", "xz, loader-tool ramdisk ls:", xs, m / xs
  printf "ratio loader/zcat:  %.2fx (goal: at most 1.20x)\n", gl / zc
  printf "ratio loader/xzcat: %.2fx (goal: at most 1.20x)\n", xl / xc
  printf "loader gzip decode vs loader raw read: %.1fx; xz: %.1fx\n", gl / rl, xl / rl
}'
