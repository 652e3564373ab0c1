#!/usr/bin/env bash
# The harness's Secure Boot firmware enforces signatures: the unsigned
# loader on the first disk is refused, the same loader signed with the test
# key on the second disk, the firmware's next boot option, starts.
set -uo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

e2e_init
e2e_sign "$EFI_IMAGE" "$E2E_WORK/signed.efi"
e2e_make_esp "$E2E_WORK/unsigned.img"
e2e_make_esp "$E2E_WORK/signed.img" --loader "$E2E_WORK/signed.efi"
e2e_boot --secure-boot --disk "$E2E_WORK/unsigned.img" --disk "$E2E_WORK/signed.img"
e2e_expect "Starting x64 UEFI loader (v.1.1.236)..." 120
# Refused before anything of it ran, then the next disk.
e2e_since_mark | grep -qE 'failed to load Boot[0-9A-F]{4} .*QM00001 .*: Access Denied' ||
  e2e_fail "the unsigned loader was not refused"
[ "$(e2e_console | grep -cF 'Starting x64 UEFI loader')" = 1 ] || e2e_fail "banner count"
e2e_stop
e2e_pass
