#!/usr/bin/env bash
# The menu on the real firmware, keys typed over the serial console: entries
# on characters, F-keys and Esc, an unknown key that changes nothing, a
# nested menu whose time-out runs its default entry, and a confirmation
# answered "Y" and "N".  Each entry chain-loads a copy of the loader whose
# own configuration prints a marker, so the console tells which entry ran.
set -uo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
e2e_init

# The serial terminal of the firmware reads F1..F10 as ESC [ M .. ESC [ V.
KEY_F2='\x1b[N'

markers=()
for m in inner f2 esc yes; do
  printf '<C><Menu><Topic Text="RAN %s" Delay="0"/><Entry Key="x" Default=""><Chainload/></Entry></Menu></C>\n' \
    "${m^^}" >"$E2E_WORK/$m.xml"
  markers+=("$EFI_IMAGE=/EFI/t/$m.efi" "$E2E_WORK/$m.xml=/EFI/t/$m.xml")
done
cat >"$E2E_WORK/menu.xml" <<'XML'
<Config>
  <Menu>
    <Topic Text="E2E MENU"/>
    <Entry Key="a" Text="a) nested menu">
      <Menu>
        <Topic Text="INNER MENU" Delay="2"/>
        <Entry Key="z" Default=""><Text>z) inner default</Text><Chainload Executable="\EFI\t\inner.efi"/></Entry>
      </Menu>
    </Entry>
    <Entry Key="F2" Text="F2) second"><Chainload Executable="\EFI\t\f2.efi"/></Entry>
    <Entry Key="Esc" Text="Esc) escape"><Chainload Executable="\EFI\t\esc.efi"/></Entry>
    <Entry Key="y" Text="y) asks first" Confirmation="Proceed?"><Chainload Executable="\EFI\t\yes.efi"/></Entry>
  </Menu>
</Config>
XML
e2e_make_esp "$E2E_WORK/esp.img" "$E2E_WORK/menu.xml=/EFI/BOOT/BOOTX64.xml" "${markers[@]}"

# Boots the menu and waits until it is drawn and waiting for keys.
start_menu() {
  e2e_note "case: $1"
  cp "$E2E_WORK/esp.img" "$E2E_WORK/run.img"
  e2e_boot --disk "$E2E_WORK/run.img"
  e2e_expect "E2E MENU" 90
  e2e_expect "y) asks first" 10
  sleep 1
  e2e_mark
}

# The first wait of a run resets the console input, which drops a key that
# arrived before it; on a loaded machine the reset can come after the menu
# is drawn.  A key whose echo does not follow is typed once more.
menu_key() {
  local key=$1 echo=$2
  e2e_send "$key"
  e2e_wait_for "$echo" 5 && return 0
  e2e_note "no echo of the first key: typing it again"
  e2e_send "$key"
  e2e_expect "$echo" 20
}

start_menu "drawing order, unknown key, nested menu with time-out"
# Scan keys come first (F2 = 0x0C, Esc = 0x17), then characters by code.
e2e_console | grep -A4 -xF "E2E MENU" | tr '\n' '|' |
  grep -qF "E2E MENU|F2) second|Esc) escape|a) nested menu|y) asks first|" ||
  e2e_fail "menu lines not in key-code order"
e2e_send 'q'
sleep 1
e2e_expect_absent "Please wait..."
menu_key 'a' '>a'
e2e_expect "INNER MENU" 20
e2e_expect "z) inner default" 5
t0=$SECONDS
e2e_expect "RAN INNER" 30
[ $((SECONDS - t0)) -ge 1 ] || e2e_fail "the inner time-out did not wait"
e2e_expect_return 30

start_menu "F-key"
menu_key "$KEY_F2" "Please wait..."
e2e_expect "RAN F2" 30
e2e_expect_return 30

start_menu "Esc"
menu_key '\x1b' "Please wait..."
e2e_expect "RAN ESC" 30
e2e_expect_return 30

start_menu "confirmation answered Y"
menu_key 'y' "Proceed? (Y/N)"
sleep 1
e2e_send 'k'
sleep 1
e2e_send 'Y'
e2e_expect "RAN YES" 30
e2e_expect_return 30

start_menu "confirmation answered N"
menu_key 'y' "Proceed? (Y/N)"
sleep 1
e2e_send 'N'
e2e_expect "Runtime error:" 20
e2e_since_mark | grep -A1 -F "Runtime error:" | tail -n 1 | grep -qxF "Error 0x148000c: Canceled" ||
  e2e_fail "no Canceled report"
e2e_expect_absent "RAN YES"
e2e_expect_return 40
e2e_pass
