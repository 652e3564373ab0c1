#!/usr/bin/env bash
# Network boot with no disk attached: the firmware's own PXE client fetches
# the loader from QEMU's built-in DHCP/TFTP server.  The loader takes its
# name from DHCP option 67 (here under a subdirectory and with two dots),
# reads its configuration over TFTP and shows its menu; a second run without
# the configuration ends in the exact report.
set -uo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
e2e_init

tftp=$E2E_WORK/tftp
mkdir -p "$tftp/rescue"
cp "$EFI_IMAGE" "$tftp/rescue/rescue.v2.efi"
cat >"$tftp/rescue/rescue.v2.xml" <<'XML'
<C>
  <Menu>
    <Topic Text="PXE MENU from rescue.v2.xml" Delay="1"/>
    <Entry Key="1" Default="" Text="1) back to the firmware"><Chainload/></Entry>
  </Menu>
</C>
XML
printf '<C><Wrong/></C>\n' >"$tftp/rescue/rescue.xml"  # the first dot's name: never read

pxe_boot() {
  e2e_boot -- -netdev "user,id=n0,restrict=on,tftp=$tftp,bootfile=rescue/rescue.v2.efi" \
    -device virtio-net-pci,netdev=n0,romfile=
}

e2e_note "case: configuration over TFTP"
pxe_boot
e2e_expect "Starting x64 UEFI loader (v.1.1.236)..." 180
e2e_expect "PXE MENU from rescue.v2.xml" 60
e2e_expect "Load Error" 60
e2e_expect_absent "Runtime error"
e2e_stop

e2e_note "case: no configuration on the server"
rm "$tftp/rescue/rescue.v2.xml"
pxe_boot
e2e_expect "Starting x64 UEFI loader (v.1.1.236)..." 180
e2e_expect "Runtime error:" 60
e2e_console | grep -A1 -F "Runtime error:" | tail -n 1 |
  grep -qxF "Error 0x40007: Error occurred while opening the file." || e2e_fail "wrong report"
# The last road tried, the card's load-file service, fails in the name of
# the operation, not of a helper behind it.
e2e_console | grep -A6 -F "Runtime error:" | grep -qxF "| function: OpenLoaderFile" ||
  e2e_fail "the report does not name OpenLoaderFile"
e2e_expect "Load Error" 60
e2e_pass
