#!/usr/bin/env bash
# Makes the seed corpus of fat_fuzz from volumes that mkfs.fat and mtools
# build: each seed lists the sectors of an image that are not all zeroes,
# as records of a little-endian 32-bit sector number and 512 bytes.
set -euo pipefail
out=${1:-$(dirname "$0")/corpus/fat_fuzz}
tmp=$(mktemp -d); trap 'rm -rf "$tmp"' EXIT
export MTOOLS_SKIP_CHECK=1
mkdir -p "$out"

sparse() {  # sparse IMAGE SEED
  python3 - "$1" "$2" <<'PY'
import struct, sys
data = open(sys.argv[1], 'rb').read()
with open(sys.argv[2], 'wb') as f:
    for n in range(len(data) // 512):
        s = data[n * 512:(n + 1) * 512]
        if any(s):
            f.write(struct.pack('<I', n) + s)
PY
}

content() {  # content IMAGE: names of every kind, a subdirectory, a fragmented file
  printf 'x%.0s' $(seq 1 700) >"$tmp/two"
  printf 'hello\n' >"$tmp/short"
  mmd -i "$1" ::/Sub ::/Sub/Deeper
  mcopy -i "$1" "$tmp/short" ::/README.TXT
  mcopy -i "$1" "$tmp/two" "::/A long file name.txt"
  mcopy -i "$1" "$tmp/short" ::/Sub/lower.txt
  mcopy -i "$1" "$tmp/short" ::/gap
  mcopy -i "$1" "$tmp/two" ::/Sub/Deeper/frag.bin
  mdel -i "$1" ::/gap
  mcopy -i "$1" "$tmp/two" ::/patch.bin
  : >"$tmp/empty"
  mcopy -i "$1" "$tmp/empty" ::/empty
}

mkfs.fat -C -F 12 -n TINY12 "$tmp/f12.img" 360 >/dev/null
content "$tmp/f12.img"
sparse "$tmp/f12.img" "$out/fat12-floppy"

mkfs.fat -C -F 16 -s 4 -n SMALL16 "$tmp/f16.img" 16384 >/dev/null
content "$tmp/f16.img"
sparse "$tmp/f16.img" "$out/fat16"

mkfs.fat -C -F 32 -s 1 -n SMALL32 "$tmp/f32.img" 34000 >/dev/null
content "$tmp/f32.img"
sparse "$tmp/f32.img" "$out/fat32"

mkfs.fat -C -F 32 -s 8 -f 1 "$tmp/f32b.img" 300000 >/dev/null
content "$tmp/f32b.img"
sparse "$tmp/f32b.img" "$out/fat32-one-fat"
