#!/usr/bin/env bash
# loader-tool ls, cat and stat on ext2, ext3 and ext4 volumes made by
# mke2fs -d: every file comes back byte for byte through the loader's own
# mount, which tries every driver in its fixed order.
set -u
tool=${LOADER_TOOL:?}
tmp=$(mktemp -d); trap 'rm -rf "$tmp"' EXIT
fail=0
check() { if ! eval "$2"; then echo "FAIL: $1"; fail=1; fi; }

src=$tmp/src
mkdir -p "$src/boot" "$src/deep/a/b/c/d/e/f/g/h" "$src/empty dir"
head -c 3000000 /dev/urandom >"$src/boot/vmlinuz"
head -c 77777 /dev/urandom >"$src/boot/initrd.img"
printf 'short\n' >"$src/README"
printf 'long\n' >"$src/A file with a rather long name, and spaces.text"
: >"$src/empty"
printf 'bottom\n' >"$src/deep/a/b/c/d/e/f/g/h/bottom of the tree.txt"
truncate -s 20M "$src/sparse"
printf 'tail' | dd of="$src/sparse" bs=1 seek=15000000 conv=notrunc status=none
ln -s README "$src/link"

same_tree() {  # same_tree IMAGE: every file of the tree reads back exactly
  local rel ok=0
  while IFS= read -r -d '' rel; do
    rel=${rel#./}
    if ! "$tool" cat "$1" "/$rel" 2>/dev/null | cmp -s - "$src/$rel"; then echo "  differs: $rel"; ok=1; fi
  done < <(cd "$src" && find . -type f -print0)
  return $ok
}

for layout in "ext2 1024 Ext2" "ext3 4096 Ext3" "ext4 1024 Ext4" "ext4 4096 Ext4"; do
  read -r kind bs type <<<"$layout"
  img=$tmp/$kind-$bs.img
  mke2fs -q -F -t "$kind" -b "$bs" -L "vol$kind" -d "$src" "$img" 32M >/dev/null 2>&1 || { echo "FAIL: mke2fs $layout"; fail=1; continue; }
  check "$kind/$bs: every file reads back" 'same_tree "$img"'
  out=$("$tool" ls "$img" /)
  check "$kind/$bs: ls shows the root" 'grep -q "^d .*  boot$" <<<"$out" && grep -q "^-  *0 .*  empty$" <<<"$out"'
  out=$("$tool" stat "$img" /)
  check "$kind/$bs: stat names the type and label" 'grep -q "^File system: $type$" <<<"$out" && grep -q "^Label: vol$kind$" <<<"$out"'
  check "$kind/$bs: a symbolic link is not opened" '! "$tool" cat "$img" /link >/dev/null 2>&1'
  check "$kind/$bs: a missing file is an error" '! "$tool" cat "$img" /boot/none >/dev/null 2>&1'
done
exit $fail
