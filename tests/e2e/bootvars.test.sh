#!/usr/bin/env bash
# The jobs and the action that change the machine, on the real firmware
# (a failing Rename's report is in reports.test.sh):
#  1. Rename jobs replace and move files on the ESP (checked with mtools
#     after the run), then Chainload starts a second EFI program from the
#     ESP, and the loader goes back to the firmware when it returns.
#  2. RemoveFakeBootNext takes a tagged one-shot Boot#### entry (made with
#     loader-tool bootvar make and written with the firmware's own shell)
#     and its number out of the firmware's variables; the variable store is
#     read after the run.
set -uo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

HERE=$E2E_LIB_DIR/bootvars
: "${LOADER_TOOL:=$SOURCE_DIR/build/loader-tool}"
[ -x "$LOADER_TOOL" ] || { echo "FAIL: no loader-tool at $LOADER_TOOL" >&2; exit 1; }
e2e_init
e2e_require gcc ld objcopy sfdisk mtype mdir python3

# The second program, built here from its source with gnu-efi.
build_chained() {
  local out=$E2E_WORK/chained
  gcc -I/usr/include/efi -I/usr/include/efi/x86_64 -I/usr/include/efi/protocol \
    -fno-stack-protector -fpic -fshort-wchar -mno-red-zone -maccumulate-outgoing-args \
    -DEFI_FUNCTION_WRAPPER -O2 -c "$HERE/chained.c" -o "$out.o" &&
    ld -shared -Bsymbolic -nostdlib -znocombreloc -T /usr/lib/elf_x86_64_efi.lds \
      /usr/lib/crt0-efi-x86_64.o "$out.o" -o "$out.so" -L/usr/lib -lefi -lgnuefi &&
    objcopy -j .text -j .sdata -j .data -j .dynamic -j .dynsym -j .rel -j .rela -j '.rel.*' \
      -j '.rela.*' -j .reloc --target efi-app-x86_64 --subsystem=10 "$out.so" "$out.efi" ||
    e2e_fail "cannot build the chained program"
}
build_chained

esp_file() { mtype -i "$1" "::$2" 2>/dev/null </dev/null; }
esp_has() { mdir -i "$1" "::$2" >/dev/null 2>&1 </dev/null; }

# ---------------------------------------------------------------- 1
e2e_note "rename jobs, then chain-loading"
printf 'new configuration\n' >"$E2E_WORK/next.cfg"
printf 'old configuration, longer than the new one\n' >"$E2E_WORK/current.cfg"
printf 'moved\n' >"$E2E_WORK/fresh.txt"
cat >"$E2E_WORK/run1.xml" <<'XML'
<Config>
  <Chainload Executable="\EFI\rescue\chained.efi"/>
  <Jobs>
    <Rename FileNameSource="\EFI\rescue\next.cfg" FileNameTarget="\EFI\rescue\current.cfg"/>
    <Rename FileNameSource="\EFI\rescue\fresh.txt" FileNameTarget="\EFI\rescue\moved.txt"/>
  </Jobs>
</Config>
XML
esp=$E2E_WORK/esp1.img
e2e_make_esp "$esp" "$E2E_WORK/run1.xml=/EFI/BOOT/BOOTX64.xml" \
  "$E2E_WORK/chained.efi=/EFI/rescue/chained.efi" "$E2E_WORK/next.cfg=/EFI/rescue/next.cfg" \
  "$E2E_WORK/current.cfg=/EFI/rescue/current.cfg" "$E2E_WORK/fresh.txt=/EFI/rescue/fresh.txt"
e2e_boot --disk "$esp"
e2e_expect "Starting x64 UEFI loader (v.1.1.236)..." 90
e2e_expect 'chained program ran from ' 60
# One file node or one per folder: the firmware prints "\" or "/" between.
e2e_console | grep -qE 'chained program ran from \\EFI\\rescue[\\/]chained\.efi' ||
  e2e_fail "the chained program was started from another file"
e2e_expect_return 60
e2e_expect_absent "Runtime error"
[ "$(esp_file "$esp" /EFI/rescue/current.cfg)" = "new configuration" ] ||
  e2e_fail "the target was not replaced: '$(esp_file "$esp" /EFI/rescue/current.cfg)'"
esp_has "$esp" /EFI/rescue/next.cfg && e2e_fail "the source of the replacing rename is still there"
[ "$(esp_file "$esp" /EFI/rescue/moved.txt)" = "moved" ] || e2e_fail "the file was not moved"
esp_has "$esp" /EFI/rescue/fresh.txt && e2e_fail "the moved file is still at its old name"

# ---------------------------------------------------------------- 2
e2e_note "removing the one-shot boot entry"
# A GPT disk whose ESP has a known unique GUID, as a real one-shot entry
# names its partition.  No \EFI\BOOT\BOOTX64.EFI: the firmware falls back
# to its shell, whose startup script writes the entries and starts the
# loader.
guid=5B3F4C1E-8A2D-4E6F-9B1A-2C3D4E5F6A7B
disk=$E2E_WORK/gpt.img
truncate -s 80M "$disk"
printf 'label: gpt\nstart=2048, size=131072, type=C12A7328-F81F-11D2-BA4B-00A0C93EC93B, uuid=%s\n' \
  "$guid" | sfdisk --quiet "$disk" || e2e_fail "sfdisk failed"
mkfs.fat -F 32 --offset=2048 "$disk" 65536 >/dev/null 2>&1 || e2e_fail "mkfs.fat failed"
part="$disk@@1M"

"$LOADER_TOOL" bootvar make --description "Rescue, once" --guid "$guid" \
  --path '\EFI\rescue\loader.efi' --partition 1 --start 2048 --size 131072 --tag \
  "$E2E_WORK/once.var" || e2e_fail "bootvar make (tagged) failed"
"$LOADER_TOOL" bootvar make --description "Installed system" --guid "$guid" \
  --path '\EFI\system\grubx64.efi' --partition 1 --start 2048 --size 131072 \
  "$E2E_WORK/system.var" || e2e_fail "bootvar make failed"
record_hex() { tail -c +5 "$1" | od -An -v -tx1 | tr -d ' \n'; }
once=$(record_hex "$E2E_WORK/once.var")
system=$(record_hex "$E2E_WORK/system.var")
global=8BE4DF61-93CA-11D2-AA0D-00E098032B8C
# BootOrder 0010 0011 0000: the one-shot entry first, as its maker puts it.
# (This firmware refuses a BootOrder of odd size; the host tests cover one.)
{
  printf 'setvar Boot0010 -guid %s -bs -rt -nv =%s\r\n' "$global" "$once"
  printf 'setvar Boot0011 -guid %s -bs -rt -nv =%s\r\n' "$global" "$system"
  printf 'setvar BootOrder -guid %s -bs -rt -nv =100011000000\r\n' "$global"
  printf 'dmpstore Boot0010 -guid %s\r\n' "$global"
  printf 'echo entries prepared\r\n'
  printf 'fs0:\\EFI\\rescue\\loader.efi\r\n'
  printf 'echo loader returned\r\n'
  printf 'reset -s\r\n'
} >"$E2E_WORK/startup.nsh"
printf '<Config><Chainload/><Jobs><RemoveFakeBootNext/></Jobs></Config>' >"$E2E_WORK/run3.xml"
mmd -i "$part" ::/EFI ::/EFI/rescue || e2e_fail "mmd failed"
mcopy -i "$part" "$EFI_IMAGE" ::/EFI/rescue/loader.efi &&
  mcopy -i "$part" "$E2E_WORK/run3.xml" ::/EFI/rescue/loader.xml &&
  mcopy -i "$part" "$E2E_WORK/startup.nsh" ::/startup.nsh || e2e_fail "mcopy failed"

e2e_boot --disk "$disk"
# The shell shows the entry as the firmware stored it before the loader runs.
e2e_expect "'EFIGlobalVariable:Boot0010' DataSize = $(printf '0x%X' $((${#once} / 2)))" 120
e2e_expect "entries prepared" 30
e2e_expect_absent "Unable to set"
e2e_expect "Starting x64 UEFI loader (v.1.1.236)..." 60
e2e_expect "loader returned" 60
e2e_expect_absent "Runtime error"
e2e_wait_exit 60
store=$(python3 "$HERE/varstore.py" "$E2E_WORK/vars.$E2E_RUN.fd") || e2e_fail "cannot read the variable store"
value_of() { awk -v n="$1" '$1 == n { print $2 }' <<<"$store"; }
[ -z "$(value_of Boot0010)" ] || e2e_fail "the tagged entry is still there"
[ "$(value_of Boot0011)" = "$system" ] || e2e_fail "the other entry changed: $(value_of Boot0011)"
[ "$(value_of BootOrder)" = 11000000 ] || e2e_fail "BootOrder is $(value_of BootOrder), not 0011 0000"
e2e_pass "renamed, chain-loaded, one-shot entry removed"
