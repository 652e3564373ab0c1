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
# A GPT disk: the ext4 partition by its unique GUID (the loader's own
# road) behind an empty FAT-typed partition that no driver takes.
disk=$tmp/gpt.img
guid=7E0C4F21-5A3B-4C2D-8E1F-90A1B2C3D4E5
truncate -s 80M "$disk"
sgdisk -n 1:2048:+4M -t 1:ef00 -n 2:0:+34M -t 2:8300 -u 2:$guid "$disk" >/dev/null
start=$(sgdisk -i 2 "$disk" | sed -n 's/^First sector: \([0-9]*\).*/\1/p')
mke2fs -q -F -t ext4 -d "$src" "$tmp/part.img" 34M >/dev/null 2>&1
dd if="$tmp/part.img" of="$disk" bs=512 seek="$start" conv=notrunc status=none
check "GPT by GUID: every file reads back" '[ -n "$start" ] && same_tree "$disk@$guid"'
err=$("$tool" cat "$disk@1" /README 2>&1); rc=$?
check "GPT: the empty partition is no volume" '[ $rc -ne 0 ] && grep -q "Failed to mount the partition\." <<<"$err"'

# A damaged volume: an extent that points behind the end of the volume.
bad=$tmp/bad.img
mke2fs -q -F -t ext4 -b 1024 -O ^metadata_csum -d "$src" "$bad" 32M >/dev/null 2>&1
loc=$(debugfs -R "imap /README" "$bad" 2>/dev/null | sed -n 's/.*located at block \([0-9]*\), offset 0x\([0-9a-f]*\).*/\1 \2/p')
read -r block offset <<<"$loc"
printf '\xff\xff\xff\x0f' | dd of="$bad" bs=1 seek=$((block * 1024 + 0x$offset + 40 + 12 + 8)) conv=notrunc status=none
err=$("$tool" cat "$bad" /README 2>&1 >/dev/null); rc=$?
check "damaged extent: the file is corrupted" '[ $rc -ne 0 ] && grep -q "^Error 0x4000d: The file is corrupted\.$" <<<"$err"'
check "damaged extent: the rest still reads" '"$tool" cat "$bad" /boot/initrd.img | cmp -s - "$src/boot/initrd.img"'
exit $fail
