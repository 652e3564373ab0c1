#!/usr/bin/env bash
# loader-tool ls, cat and stat on XFS volumes of both versions made by
# mkfs.xfs from a protofile: every file comes back byte for byte through the
# loader's own mount, which tries every driver in its fixed order.
set -u
tool=${LOADER_TOOL:?}
tmp=$(mktemp -d); trap 'rm -rf "$tmp"' EXIT
fail=0
check() { if ! eval "$2"; then echo "FAIL: $1"; fail=1; fi; }

src=$tmp/src
mkdir -p "$src"
head -c 3000000 /dev/urandom >"$src/vmlinuz"
head -c 77777 /dev/urandom >"$src/initrd.img"
printf 'short\n' >"$src/README"
: >"$src/empty"
{
  echo proto; echo 0 0; echo 'd--755 0 0'
  for f in vmlinuz initrd.img README empty; do echo "$f ---644 0 0 $src/$f"; done
  echo 'link l--777 0 0 README'
  echo 'boot d--755 0 0'
  for i in $(seq 1 400); do echo "entry_$i ---644 0 0 $src/README"; done
  echo '$'
  echo '$'
} >"$tmp/proto"

for layout in "v5 -m crc=1,bigtime=0" "v4 -m crc=0"; do
  read -r name options <<<"$layout"
  img=$tmp/$name.img
  truncate -s 300M "$img"
  # shellcheck disable=SC2086
  mkfs.xfs -q -f $options -L "vol$name" -p "$tmp/proto" "$img" >/dev/null 2>&1 || { echo "FAIL: mkfs.xfs $layout"; fail=1; continue; }
  for f in vmlinuz initrd.img README empty; do
    check "$name: $f reads back" '"$tool" cat "$img" "/$f" | cmp -s - "$src/$f"'
  done
  check "$name: a file of a large directory reads back" '"$tool" cat "$img" /boot/entry_400 | cmp -s - "$src/README"'
  out=$("$tool" ls "$img" /boot)
  check "$name: ls lists the large directory" '[ "$(grep -c entry_ <<<"$out")" -eq 400 ]'
  out=$("$tool" stat "$img" /)
  check "$name: stat names the type and label" 'grep -q "^File system: XFS$" <<<"$out" && grep -q "^Label: vol$name$" <<<"$out"'
  check "$name: a symbolic link is not opened" '! "$tool" cat "$img" /link >/dev/null 2>&1'
  check "$name: a missing file is an error" '! "$tool" cat "$img" /none >/dev/null 2>&1'
done
exit $fail
