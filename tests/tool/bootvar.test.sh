#!/usr/bin/env bash
# loader-tool bootvar: an entry written by `make` reads back with `dump`;
# real firmware records are shown as they are; broken ones are refused with
# the loader's own report.
set -u
tool=${LOADER_TOOL:?}
src=${SOURCE_DIR:?}
data=$src/tests/uefi/data
tmp=$(mktemp -d); trap 'rm -rf "$tmp"' EXIT
fail=0
check() { if ! eval "$2"; then echo "FAIL: $1"; fail=1; fi; }
hex() { od -An -v -tx1 "$@" | tr -d ' \n'; }

guid=3F2504E0-4F89-11D3-9A0C-0305E82C3301
"$tool" bootvar make --description "Rescue stage 2" --guid "$guid" --path '\EFI\rescue\stage2.efi' \
  --partition 1 --start 2048 --size 122880 --tag "$tmp/tagged.var"; rc=$?
check "make with tag" '[ $rc -eq 0 ]'
check "efivarfs attributes first" '[ "$(head -c 4 "$tmp/tagged.var" | hex)" = 07000000 ]'
check "tag at the end" '[ "$(tail -c 8 "$tmp/tagged.var")" = Fake_tag ]'
out=$("$tool" bootvar dump "$tmp/tagged.var"); rc=$?
expected='Description: Rescue stage 2
Path: \EFI\rescue\stage2.efi
GUID: 3F2504E0-4F89-11D3-9A0C-0305E82C3301
Partition number: 1
Begin: 2048
Partition Size: 122880
Hex dump:'
check "dump of a made entry" '[ $rc -eq 0 ] && [ "$(head -n 7 <<<"$out")" = "$expected" ]'
check "hex dump shows the tag" 'grep -q "Fake_tag" <<<"$(tail -n 2 <<<"$out")"'
check "hex dump covers the record" '[ "$(grep -c "^[0-9A-F]\{4\}: " <<<"$out")" = $(( ($(stat -c %s "$tmp/tagged.var") - 4 + 15) / 16 )) ]'

"$tool" bootvar make --description "MBR entry" --guid "$guid" --path '\mbrboot.efi' \
  --partition 1 --start 0x800 --size 0x1E000 "$tmp/plain.var"; rc=$?
check "make without tag" '[ $rc -eq 0 ]'
check "ends with the end node" '[ "$(tail -c 4 "$tmp/plain.var" | hex)" = 7fff0400 ]'
# The firmware's own record for the same partition and file holds the same
# partition, file and end nodes (it has the disk's path before them).
check "nodes as the firmware writes them" \
  '[ "$(tail -c 76 "$tmp/plain.var" | hex)" = "$(tail -c 76 "$data/ovmf_gpt_file.var" | hex)" ]'

out=$("$tool" bootvar dump "$data/ovmf_gpt_file.var"); rc=$?
check "real GPT entry" '[ $rc -eq 0 ] && grep -qx "GUID: $guid" <<<"$out" && grep -qx "Path: \\\\mbrboot.efi" <<<"$out"'
out=$("$tool" bootvar dump "$data/ovmf_ui_app.var"); rc=$?
check "real entry without partition" '[ $rc -eq 0 ] && grep -qx "Path: Unknown" <<<"$out" && grep -qx "Description: UiApp" <<<"$out"'

printf '\x07\x00\x00' >"$tmp/short.var"
"$tool" bootvar dump "$tmp/short.var" >/dev/null 2>&1; rc=$?
check "file shorter than the attributes" '[ $rc -eq 1 ]'
head -c 40 "$data/ovmf_gpt_file.var" >"$tmp/cut.var"
err=$("$tool" bootvar dump "$tmp/cut.var" 2>&1 >"$tmp/cut.out"); rc=$?
check "cut record refused with its code" '[ $rc -eq 1 ] && grep -q "^Error 0x12f000d" <<<"$err"'
check "cut record still shown" 'grep -qx "Description: Unknown" "$tmp/cut.out" && grep -q "^Hex dump:" "$tmp/cut.out"'

"$tool" bootvar make --description D --guid not-a-guid --path '\x' "$tmp/x.var" 2>/dev/null; rc=$?
check "bad GUID" '[ $rc -eq 2 ] && [ ! -e "$tmp/x.var" ]'
"$tool" bootvar make --guid "$guid" --path '\x' "$tmp/x.var" 2>/dev/null; rc=$?
check "missing description" '[ $rc -eq 2 ]'
err=$("$tool" bootvar make --description "" --guid "$guid" --path '\x' "$tmp/x.var" 2>&1); rc=$?
check "empty description refused by the check" '[ $rc -eq 1 ] && grep -q "^Error 0x12f000d" <<<"$err" && [ ! -e "$tmp/x.var" ]'
"$tool" bootvar frobnicate 2>/dev/null; rc=$?
check "unknown subcommand" '[ $rc -eq 2 ]'

[ $fail -eq 0 ] && echo "bootvar: all cases passed"
exit $fail
