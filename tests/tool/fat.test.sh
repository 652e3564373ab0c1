#!/usr/bin/env bash
# loader-tool ls, cat and stat on FAT volumes made by mkfs.fat and mtools:
# bare volumes of the three FAT kinds, partitions of GPT disks (by unique
# GUID and by number) and of MBR disks (by number).  Every file comes back
# byte for byte; failures print the loader's own report.
set -u
tool=${LOADER_TOOL:?}
tmp=$(mktemp -d); trap 'rm -rf "$tmp"' EXIT
fail=0
check() { if ! eval "$2"; then echo "FAIL: $1"; fail=1; fi; }
export MTOOLS_SKIP_CHECK=1

# The tree every volume gets: names of all kinds, a deep path, an empty
# file and a file of many clusters.
src=$tmp/src
mkdir -p "$src/EFI/BOOT" "$src/deep/a/b/c/d/e/f" "$src/empty dir"
head -c 300000 /dev/urandom >"$src/EFI/BOOT/vmlinuz"
head -c 77777 /dev/urandom >"$src/EFI/BOOT/initrd.img"
printf 'short\n' >"$src/README.TXT"
printf 'long\n' >"$src/A file with a long name.text"
: >"$src/empty"
printf 'bottom\n' >"$src/deep/a/b/c/d/e/f/bottom of the tree.txt"

fill() {  # fill IMAGE: copies the tree into a volume image
  (cd "$src" && for f in ./*; do mcopy -i "$1" -s -Q "$f" ::/ || exit 1; done)
}

same_tree() {  # same_tree TARGET: every file of the tree reads back exactly
  local rel ok=0
  while IFS= read -r -d '' rel; do
    rel=${rel#./}
    if ! "$tool" cat "$1" "/$rel" 2>/dev/null | cmp -s - "$src/$rel"; then echo "  differs: $rel"; ok=1; fi
  done < <(cd "$src" && find . -type f -print0)
  return $ok
}

for fat in 12 16 32; do
  img=$tmp/fat$fat.img
  case $fat in
    12) kib=4096; s=2 ;;
    16) kib=32768; s=4 ;;
    32) kib=66000; s=1 ;;
  esac
  mkfs.fat -C -F $fat -s $s -n VOL$fat "$img" $kib >/dev/null || { echo "FAIL: mkfs.fat -F $fat"; fail=1; continue; }
  fill "$img" || { echo "FAIL: mcopy FAT$fat"; fail=1; continue; }
  check "FAT$fat: every file reads back" 'same_tree "$img"'
  out=$("$tool" ls "$img" /)
  check "FAT$fat: ls shows the root" 'grep -q "^d .*  EFI$" <<<"$out" && grep -q "^-  *5 .*  A file with a long name.text$" <<<"$out" && grep -q "^-  *0 .*  empty$" <<<"$out"'
  out=$("$tool" ls "$img" /efi/boot)
  check "FAT$fat: ls in any case" 'grep -q "^-  *300000 .*  vmlinuz$" <<<"$out"'
  out=$("$tool" stat "$img" /)
  want=FAT16; [ $fat = 32 ] && want=FAT32
  check "FAT$fat: stat names the type and label" 'grep -q "^File system: $want$" <<<"$out" && grep -q "^Label: VOL$fat$" <<<"$out"'
  out=$("$tool" stat "$img" "/A FILE WITH A LONG NAME.TEXT")
  check "FAT$fat: stat of a long name" 'grep -q "^Name: A file with a long name.text$" <<<"$out" && grep -q "^Short name: AFILEW~1.TEX$" <<<"$out" && grep -q "^Size: 5$" <<<"$out"'
done

# A GPT disk: the FAT partition by its unique GUID (the loader's own road)
# and by its number; a partition without a file system.
disk=$tmp/gpt.img
guid=3C1F8A52-6B0E-4D7A-9E21-5F4A3B2C1D00
truncate -s 48M "$disk"
sgdisk -n 1:2048:+34M -t 1:ef00 -u 1:$guid -n 2:0:0 "$disk" >/dev/null
dd if="$tmp/fat16.img" of="$disk" bs=512 seek=2048 conv=notrunc status=none
check "GPT by GUID: every file reads back" 'same_tree "$disk@$guid"'
check "GPT by number: every file reads back" 'same_tree "$disk@1"'
lower=$(tr A-Z a-z <<<"$guid")
check "GPT by GUID in lower case" '"$tool" cat "$disk@$lower" /README.TXT | grep -q short'
out=$("$tool" ls "$disk@$guid" /deep/a/b/c/d/e/f)
check "GPT: deep ls" 'grep -q "bottom of the tree.txt$" <<<"$out"'

err=$("$tool" cat "$disk@3C1F8A52-6B0E-4D7A-9E21-5F4A3B2C1D01" /EFI/BOOT/vmlinuz 2>&1); rc=$?
check "missing GUID: status" '[ $rc -ne 0 ]'
check "missing GUID: the loader's report" 'grep -q "^Error 0x1480008: Cannot get file \"/EFI/BOOT/vmlinuz\" from the partition with GUID 3C1F8A52-6B0E-4D7A-9E21-5F4A3B2C1D01\.$" <<<"$err"'
check "missing GUID: the cause" 'grep -q "Failed to open the volume by GUID\." <<<"$err" && grep -q "Failed to find\." <<<"$err"'
err=$("$tool" cat "$disk@2" /x 2>&1); rc=$?
check "no file system: refused" '[ $rc -ne 0 ] && grep -q "^Error 0x148000e: Failed to mount the partition\.$" <<<"$err"'
err=$("$tool" cat "$disk@1" /EFI/BOOT/missing 2>&1); rc=$?
check "missing file: the loader's report" '[ $rc -ne 0 ] && grep -q "Failed to open the file\." <<<"$err" && grep -q "The specified file does not exist\." <<<"$err"'
err=$("$tool" cat "$disk@7" /x 2>&1); rc=$?
check "no such partition" '[ $rc -ne 0 ] && grep -q "has no partition 7" <<<"$err"'

# An MBR disk with a logical partition.
mbr=$tmp/mbr.img
truncate -s 48M "$mbr"
printf 'label: dos\n2048,4096,83\n,,5\n,70000,c\n' | sfdisk "$mbr" >/dev/null 2>&1
start=$(sfdisk -d "$mbr" | sed -n 's/.*img5 : start= *\([0-9]*\),.*/\1/p')
dd if="$tmp/fat16.img" of="$mbr" bs=512 seek="$start" conv=notrunc status=none 2>/dev/null
check "MBR logical partition 5: every file reads back" '[ -n "$start" ] && same_tree "$mbr@5"'

# A damaged volume: both FATs wiped, so every chain ends after its first
# cluster; a file of many clusters then has less than its size.
bad=$tmp/bad.img
cp "$tmp/fat12.img" "$bad"
reserved=$(od -An -tu2 -j14 -N2 "$bad" | tr -d ' ')
spf=$(od -An -tu2 -j22 -N2 "$bad" | tr -d ' ')
dd if=/dev/zero of="$bad" bs=1 seek=$((reserved * 512 + 3)) count=$((spf * 512 * 2 - 3)) conv=notrunc status=none
err=$("$tool" cat "$bad" /EFI/BOOT/vmlinuz 2>&1 >/dev/null); rc=$?
check "damaged chain: the file is corrupted" '[ $rc -eq 1 ] && grep -q "^Error 0x4000d: The file is corrupted\.$" <<<"$err"'
out=$("$tool" cat "$bad" /README.TXT)
check "damaged chain: one-cluster files still read" '[ "$out" = short ]'
zero=$tmp/zero.img
truncate -s 1M "$zero"
err=$("$tool" ls "$zero" / 2>&1); rc=$?
check "all zeroes: not mountable" '[ $rc -ne 0 ] && grep -q "Failed to mount the partition\." <<<"$err"'

[ $fail -eq 0 ] && echo "fat: all cases passed"
exit $fail
