#!/usr/bin/env bash
# loader-tool ramdisk against the real tools: archives made by cpio, gzip
# and xz at test time must list exactly as cpio lists them; damaged ones
# are refused with the loader's error text; appended archives unpack with
# cpio and gzip.
set -u
tool=${LOADER_TOOL:?}
tmp=$(mktemp -d); trap 'rm -rf "$tmp"' EXIT
fail=0
check() { if ! eval "$2"; then echo "FAIL: $1"; fail=1; fi; }
names() { "$tool" ramdisk ls "$1" | cut -d' ' -f4-; }

# A tree with the node kinds an unprivileged user can make, odd names and
# sizes around the padding boundaries.
root=$tmp/root
mkdir -p "$root/etc/ssl" "$root/usr/lib/modules" "$root/dir with space" "$root/empty"
printf 'rescue\n' >"$root/etc/hostname"
for n in 0 1 2 3 4 5; do head -c "$n" /dev/zero | tr '\0' x >"$root/usr/lib/size$n"; done
head -c 300000 /dev/urandom >"$root/usr/lib/modules/blob.ko"
seq 1 20000 >"$root/usr/lib/numbers"
printf 'x' >"$root/dir with space/file"
ln -s ../etc/hostname "$root/usr/link"
mkfifo "$root/fifo"
(cd "$root" && find . | sort | cpio -o -H newc --quiet) >"$tmp/main.cpio"
mkdir -p "$tmp/early/kernel/x86/microcode"
head -c 5000 /dev/urandom >"$tmp/early/kernel/x86/microcode/GenuineIntel.bin"
(cd "$tmp/early" && find . | sort | cpio -o -H newc --quiet) >"$tmp/early.cpio"

cpio -t --quiet <"$tmp/main.cpio" >"$tmp/main.list"
cpio -t --quiet <"$tmp/early.cpio" >"$tmp/early.list"
cat "$tmp/early.list" "$tmp/main.list" >"$tmp/both.list"

gzip -1c "$tmp/main.cpio" >"$tmp/main.gz1"
gzip -9c "$tmp/main.cpio" >"$tmp/main.gz9"
for c in none crc32 crc64 sha256; do xz -c --check=$c "$tmp/main.cpio" >"$tmp/main.xz-$c"; done
for f in main.cpio main.gz1 main.gz9 main.xz-none main.xz-crc32 main.xz-crc64 main.xz-sha256; do
  check "$f lists as cpio -t" 'diff <(names "$tmp/$f") "$tmp/main.list" >/dev/null'
done

out=$("$tool" ramdisk ls "$tmp/main.gz9")
check "type, mode and size shown" 'grep -qx "file 0644 7 etc/hostname" <<<"$out" && grep -qx "link 0777 15 usr/link" <<<"$out" && grep -q "^fifo [0-7]* 0 fifo$" <<<"$out" && grep -q "^dir [0-7]* 0 etc/ssl$" <<<"$out"'

# Concatenations as distributions ship them.
cat "$tmp/early.cpio" "$tmp/main.gz9" >"$tmp/early+gz"
cat "$tmp/early.cpio" "$tmp/main.xz-crc32" >"$tmp/early+xz"
cat "$tmp/early.cpio" "$tmp/main.cpio" >"$tmp/early+plain"
gzip -c "$tmp/early.cpio" >"$tmp/early.gz"; cat "$tmp/early.gz" "$tmp/main.gz1" >"$tmp/gz+gz"
xz -c "$tmp/early.cpio" >"$tmp/early.xz"; cat "$tmp/early.xz" "$tmp/main.xz-crc64" >"$tmp/xz+xz"
for f in early+gz early+xz early+plain gz+gz xz+xz; do
  check "$f lists both archives" 'diff <(names "$tmp/$f") "$tmp/both.list" >/dev/null'
done
check "cat gives the decoded archives" 'cmp -s <("$tool" ramdisk cat "$tmp/early+xz") <(head -c $(( $(grep -abo "TRAILER!!!" "$tmp/early.cpio" | head -1 | cut -d: -f1) + 14 )) "$tmp/early.cpio"; cat "$tmp/main.cpio")'

# Damage: the loader's error text and a non-zero status.
refused() {  # FILE CODE
  local err rc
  err=$("$tool" ramdisk ls "$1" 2>&1 >/dev/null); rc=$?
  [ $rc -ne 0 ] && grep -q "^Error $2: " <<<"$err"
}
size=$(stat -c %s "$tmp/main.gz9")
head -c $((size - 4)) "$tmp/main.gz9" >"$tmp/cut-trailer.gz"
head -c $((size / 2)) "$tmp/main.gz9" >"$tmp/cut-data.gz"
check "gzip trailer cut off" 'refused "$tmp/cut-trailer.gz" 0x4000d'
check "gzip data cut off" 'refused "$tmp/cut-data.gz" 0x40002'
xsize=$(stat -c %s "$tmp/main.xz-crc64")
head -c $((xsize / 2)) "$tmp/main.xz-crc64" >"$tmp/cut.xz"
check "xz cut off" 'refused "$tmp/cut.xz" 0x4000d'
cp "$tmp/main.xz-sha256" "$tmp/bad-check.xz"
printf '\x55' | dd of="$tmp/bad-check.xz" bs=1 seek=$((xsize / 2)) conv=notrunc status=none
check "corrupt xz block" 'refused "$tmp/bad-check.xz" 0x4000d'
sed '1s/^070701/070702/' "$tmp/main.cpio" >"$tmp/bad-magic.cpio"
check "bad cpio magic" 'refused "$tmp/bad-magic.cpio" 0x4000d'
{ printf '070701'; printf '%08X' 1 $((0x81a4)) 0 0 1 0 0 0 0 0 0; printf 'FFFFFFFF00000000'; printf 'x\0\0\0'; } >"$tmp/huge-name.cpio"
check "huge namesize" 'refused "$tmp/huge-name.cpio" 0x4000d'
{ printf '070701'; printf '%08X' 1 $((0x81a4)) 0 0 1 0; printf 'FFFFFFF0'; printf '%08X' 0 0 0 0 2 0; printf 'x\0'; } >"$tmp/huge-file.cpio"
check "huge filesize" 'refused "$tmp/huge-file.cpio" 0x4000d'
{ printf '070701'; printf '%08X' 1 $((0x81a4)) 0 0 1 0 0 0 0 0 0; printf '0000000G00000000'; } >"$tmp/nonhex.cpio"
check "non-hex digit" 'refused "$tmp/nonhex.cpio" 0x4000d'
printf 'PK\x03\x04' >"$tmp/zip"
check "unknown format" 'refused "$tmp/zip" 0x4000d'
check "missing file" '! "$tool" ramdisk ls "$tmp/missing" 2>/dev/null'

# Append: the result unpacks with the real tools, the old data and the new.
printf 'key=value\n' >"$tmp/new.conf"
head -c 70001 /dev/urandom >"$tmp/new.bin"
appended() {  # IN OUT: list and unpack OUT with gzip -d and cpio -i
  "$tool" ramdisk append "$1" "$2" --add ConfigurationFiles/rescue.conf="$tmp/new.conf" \
    --add ConfigurationFiles/sub/new.bin="$tmp/new.bin" || return 1
  local plain=$2.cpio x=$2.x
  if [ "$(head -c 2 "$2" | od -An -tx1 | tr -d ' ')" = 1f8b ]; then gzip -t "$2" && gzip -dc "$2" >"$plain" || return 1
  else cp "$2" "$plain"; fi
  mkdir -p "$x/old" "$x/new"
  (cd "$x/old" && cpio -i -d --quiet <"$plain") || return 1
  # The new archive starts behind the old one and its padding.
  local old; old=$(stat -c %s "$3")
  (cd "$x/new" && tail -c +$((old + 1)) "$plain" | cpio -i -d --quiet) || return 1
  cmp -s "$x/new/ConfigurationFiles/rescue.conf" "$tmp/new.conf" &&
    cmp -s "$x/new/ConfigurationFiles/sub/new.bin" "$tmp/new.bin" &&
    cmp -s "$x/old/usr/lib/modules/blob.ko" "$root/usr/lib/modules/blob.ko" &&
    names "$2" | grep -qx "ConfigurationFiles/sub/new.bin"
}
check "append to gzip unpacks with gzip -d and cpio -i" 'appended "$tmp/main.gz9" "$tmp/out.gz" "$tmp/main.cpio"'
check "old gzip data not recompressed" 'cmp -s <(head -c 1000 "$tmp/main.gz9") <(head -c 1000 "$tmp/out.gz")'
check "append to plain unpacks with cpio -i" 'appended "$tmp/main.cpio" "$tmp/out.cpio" "$tmp/main.cpio"'
check "appended gzip lists old and new" '[ "$(names "$tmp/out.gz" | wc -l)" -eq $(( $(wc -l <"$tmp/main.list") + 4 )) ]'
err=$("$tool" ramdisk append "$tmp/main.xz-crc32" "$tmp/out.xz" --add a="$tmp/new.conf" 2>&1); rc=$?
check "append to xz refused" '[ $rc -ne 0 ] && grep -q "^Error 0x4000e: " <<<"$err" && [ ! -e "$tmp/out.xz" ]'
cat "$tmp/main.gz9" "$tmp/early.gz" >"$tmp/two-members.gz"
err=$("$tool" ramdisk append "$tmp/two-members.gz" "$tmp/out2.gz" --add a="$tmp/new.conf" 2>&1); rc=$?
check "append behind a second member refused" '[ $rc -ne 0 ] && grep -q "^Error 0x4000d: " <<<"$err"'
err=$("$tool" ramdisk append "$tmp/main.gz9" "$tmp/out.gz" --add a="$tmp/new.conf" 2>&1); rc=$?
check "existing output not overwritten" '[ $rc -ne 0 ] && grep -q "^Error 0x40013: " <<<"$err"'

[ $fail -eq 0 ] && echo "ramdisk: all cases passed"
exit $fail
