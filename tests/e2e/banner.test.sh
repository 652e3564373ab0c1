#!/usr/bin/env bash
# The loader starts on the real firmware, prints its banner once, reads the
# configuration beside itself, and a chain-load without an executable goes
# straight back to the firmware with EFI_LOAD_ERROR and no report.
set -uo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

e2e_init
printf '<Config><Chainload/></Config>\n' >"$E2E_WORK/loader.xml"
e2e_make_esp "$E2E_WORK/esp.img" "$E2E_WORK/loader.xml=/EFI/BOOT/BOOTX64.xml"
e2e_boot --disk "$E2E_WORK/esp.img"
e2e_expect "Starting x64 UEFI loader (v.1.1.236)..." 90
e2e_expect_return 30
e2e_expect_absent "Runtime error"
[ "$(e2e_console | grep -cF 'Starting x64 UEFI loader')" = 1 ] || e2e_fail "banner printed more than once"
e2e_pass
