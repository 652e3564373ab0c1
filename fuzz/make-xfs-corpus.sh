#!/usr/bin/env bash
# Makes the seed corpus of xfs_fuzz from volumes that mkfs.xfs builds from a
# protofile: each seed lists the sectors of an image that are not all
# zeroes, as records of a little-endian 32-bit sector number and 512 bytes.
# A fresh volume has about a hundred such sectors, so the seeds stay small.
set -euo pipefail
out=${1:-$(dirname "$0")/corpus/xfs_fuzz}
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

# A short directory, a directory of one block, one of several data blocks,
# a file of a few blocks, an empty file and both kinds of symbolic link.
printf 'hello\n' >"$tmp/hello"
head -c 9000 /dev/zero | tr '\0' 'x' >"$tmp/nine"
: >"$tmp/empty"
{
  echo seed; echo 0 0; echo 'd--755 0 0'
  echo "README ---644 0 0 $tmp/hello"
  echo "nine ---644 0 0 $tmp/nine"
  echo "empty ---644 0 0 $tmp/empty"
  echo 'short l--777 0 0 README'
  echo "long l--777 0 0 sub/$(printf 'a_target_longer_than_the_inode_holds_%.0s' 1 2 3 4 5 6 7 8 9 10)"
  echo 'sub d--755 0 0'; echo "inner ---644 0 0 $tmp/hello"; echo '$'
  echo 'block d--755 0 0'
  for i in $(seq 1 12); do echo "entry_with_a_long_name_$i ---644 0 0 $tmp/empty"; done
  echo '$'
  echo 'leaf d--755 0 0'
  # Names near the longest allowed fill more than one directory block
  # with few inodes.
  for i in $(seq 1 24); do echo "$(printf 'n%.0s' $(seq 1 240))_$i ---644 0 0 $tmp/empty"; done
  echo '$'
  echo '$'
} >"$tmp/proto"

make() {  # make NAME MKFS-OPTIONS...
  local name=$1; shift
  rm -f "$tmp/$name.img"; truncate -s 300M "$tmp/$name.img"
  mkfs.xfs -q -f -L seed "$@" -p "$tmp/proto" "$tmp/$name.img" >/dev/null 2>&1
  sparse "$tmp/$name.img" "$out/$name"
}

make v5-4k -m crc=1,bigtime=0
make v4-4k -m crc=0 -i size=256
