#!/usr/bin/env bash
# The image starts on the real firmware, prints its banner, carries a thrown
# error through the unwinder to its handler, and goes back to the firmware
# with EFI_LOAD_ERROR.
set -uo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

e2e_init
e2e_make_esp "$E2E_WORK/esp.img"
e2e_boot --disk "$E2E_WORK/esp.img"
e2e_expect "Starting x64 UEFI loader (v.1.1.236)..." 90
e2e_expect "Caught error 0x1480001" 30
e2e_expect_return 30
# The banner is printed once: a second one would mean the entry ran twice.
[ "$(e2e_console | grep -cF 'Starting x64 UEFI loader')" = 1 ] || e2e_fail "banner printed more than once"
e2e_pass
