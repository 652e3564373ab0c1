#!/usr/bin/env bash
# Makes the seed corpus of partition_fuzz from disks that sgdisk and sfdisk
# partition: each seed is the disk's sector count (little-endian, 32 bits;
# GPT seeds with the top bit set, which asks the target to keep the GPT
# checksums right while it mutates) and the sectors that are not all
# zeroes, as records of a little-endian 32-bit sector number and 512 bytes.
set -euo pipefail
out=${1:-$(dirname "$0")/corpus/partition_fuzz}
tmp=$(mktemp -d); trap 'rm -rf "$tmp"' EXIT
mkdir -p "$out"

sparse() {  # sparse IMAGE SEED [FLAGS]
  python3 - "$1" "$2" "${3:-0}" <<'PY'
import struct, sys
data = open(sys.argv[1], 'rb').read()
with open(sys.argv[2], 'wb') as f:
    f.write(struct.pack('<I', len(data) // 512 | int(sys.argv[3], 0)))
    for n in range(len(data) // 512):
        s = data[n * 512:(n + 1) * 512]
        if any(s):
            f.write(struct.pack('<I', n) + s)
PY
}

# GPT with three partitions, one of them named, on a small disk.
truncate -s 1M "$tmp/gpt.img"
sgdisk -a 1 -o -n 1:34:+100K -t 1:ef00 -n 2:0:+200K -t 2:0700 -c 2:data -n 3:0:0 -t 3:8300 \
  "$tmp/gpt.img" >/dev/null
sparse "$tmp/gpt.img" "$out/gpt-three"
sparse "$tmp/gpt.img" "$out/gpt-three-mended" 0x80000000

# The same with its primary header wiped: only the backup at the end is left.
cp "$tmp/gpt.img" "$tmp/backup.img"
dd if=/dev/zero of="$tmp/backup.img" bs=512 seek=1 count=1 conv=notrunc status=none
sparse "$tmp/backup.img" "$out/gpt-backup-only" 0x80000000

# MBR: two primaries and an extended partition with two logical ones.
truncate -s 2M "$tmp/mbr.img"
sfdisk -q "$tmp/mbr.img" >/dev/null <<'SF'
label: dos
start=1, size=500, type=c
start=501, size=500, type=83
start=1001, size=2000, type=5
start=1002, size=800, type=7
start=1900, size=1000, type=83
SF
sparse "$tmp/mbr.img" "$out/mbr-logical"
