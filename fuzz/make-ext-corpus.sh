#!/usr/bin/env bash
# Makes the seed corpus of ext_fuzz from volumes that mke2fs builds: each
# seed lists the sectors of an image that are not all zeroes, as records of
# a little-endian 32-bit sector number and 512 bytes.  The volumes are small
# and journal-less so that the seeds stay small.
set -euo pipefail
out=${1:-$(dirname "$0")/corpus/ext_fuzz}
tmp=$(mktemp -d); trap 'rm -rf "$tmp"' EXIT
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

# A tree with a subdirectory, an indexed directory, a file of several
# blocks, a sparse file, an empty file and both kinds of symbolic link.
src=$tmp/src
mkdir -p "$src/sub/deeper" "$src/index"
printf 'hello\n' >"$src/README"
head -c 2500 /dev/zero | tr '\0' 'x' >"$src/sub/five thousand"
: >"$src/empty"
printf 'far' | dd of="$src/sparse" bs=1 seek=300000 status=none
# Hard links: an index of many names costs no inodes.
for i in $(seq 1 70); do ln "$src/README" "$src/index/entry with a long name number $i"; done
ln -s README "$src/short link"
ln -s "sub/deeper/a target far longer than the sixty bytes an inode holds inline" "$src/long link"

make() {  # make NAME KIB MKE2FS-OPTIONS...
  local name=$1 kib=$2; shift 2
  mke2fs -q -F -L seed "$@" -d "$src" "$tmp/$name.img" "$kib" >/dev/null
  e2fsck -fyD "$tmp/$name.img" >/dev/null 2>&1 || [ $? -le 1 ]
  sparse "$tmp/$name.img" "$out/$name"
}

make ext2-1k 1024 -t ext2 -b 1024 -N 32
make ext4-1k-csum 2048 -t ext4 -b 1024 -N 32 -O ^has_journal
make ext4-4k-gdt-csum 8192 -t ext4 -b 4096 -N 32 -O ^has_journal,^metadata_csum,^64bit,uninit_bg
