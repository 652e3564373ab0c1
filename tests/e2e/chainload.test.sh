#!/usr/bin/env bash
# Chain-loading and name derivation on the real firmware: the loader starts
# a second copy of itself under another name from its own device; that copy
# reads the configuration of its own name (only the last "." counts) and
# returns, and the run goes back to the firmware without a report.
set -uo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
e2e_init

printf '<C><Chainload Executable="\\EFI\\rescue\\a.b.efi"/></C>\n' >"$E2E_WORK/boot.xml"
cat >"$E2E_WORK/ab.xml" <<'XML'
<C>
  <Menu>
    <Topic Text="second loader read a.b.xml" Delay="0"/>
    <Entry Key="x" Default=""><Chainload/></Entry>
  </Menu>
</C>
XML
printf '<C><Wrong/></C>\n' >"$E2E_WORK/a.xml"
e2e_make_esp "$E2E_WORK/esp.img" \
  "$E2E_WORK/boot.xml=/EFI/BOOT/BOOTX64.xml" \
  "$EFI_IMAGE=/EFI/rescue/a.b.efi" \
  "$E2E_WORK/ab.xml=/EFI/rescue/a.b.xml" \
  "$E2E_WORK/a.xml=/EFI/rescue/a.xml"
e2e_boot --disk "$E2E_WORK/esp.img"
e2e_expect "Starting x64 UEFI loader (v.1.1.236)..." 90
e2e_expect "second loader read a.b.xml" 30
e2e_expect_return 30
e2e_expect_absent "Runtime error"
# Two banners: the loader and the copy it started.
[ "$(e2e_console | grep -cF 'Starting x64 UEFI loader')" = 2 ] || e2e_fail "expected two banners"
e2e_pass
