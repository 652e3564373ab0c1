#!/usr/bin/env bash
# The image's own C and C++ runtime (formatting, parsing, strings, heap,
# exceptions, RTTI, containers, exit handlers) against the same checks that
# glibc and libstdc++ pass on the host, run on the real firmware.
set -uo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

CHECK_SOURCE=$E2E_LIB_DIR/runtime/runtime_check.cpp
CHECK_IMAGE=${E2E_RUNTIME_CHECK_IMAGE:-$(dirname "$EFI_IMAGE")/efi/runtime-check.efi}
[ -f "$CHECK_IMAGE" ] || { echo "FAIL: no $CHECK_IMAGE (run 'make efi')" >&2; exit 1; }
e2e_init

# Every case and the order of the exit handlers, from one run's output.
verify_output() {
  local where=$1 output=$2 summary
  summary=$(grep -E '^runtime check: [0-9]+ of [0-9]+ cases passed$' <<<"$output") ||
    e2e_fail "$where: no summary line"
  grep -F 'FAILED' <<<"$output" >&2 && e2e_fail "$where: cases failed ($summary)"
  read -r _ _ passed _ total _ <<<"$summary"
  [ "$passed" = "$total" ] && [ "$total" -gt 50 ] || e2e_fail "$where: $summary"
  [ "$(grep '^exit: ' <<<"$output" | tr '\n' '|')" = "exit: handler 2|exit: handler 1|exit: static destructor|" ] ||
    e2e_fail "$where: exit handlers out of order"
  e2e_note "$where: $summary"
}

# The expectations themselves hold for the host's C and C++ libraries.
g++ -std=c++20 -O2 -o "$E2E_WORK/runtime-check" "$CHECK_SOURCE" || e2e_fail "host build failed"
host_output=$("$E2E_WORK/runtime-check" alpha beta) || e2e_fail "host run failed: $host_output"
verify_output host "$host_output"
grep -qxF "runtime check: 3 arguments: [$E2E_WORK/runtime-check] [alpha] [beta]" <<<"$host_output" ||
  e2e_fail "host: arguments"

# Started by the firmware's boot manager: no shell, no arguments.
e2e_make_esp "$E2E_WORK/esp.img" --loader "$CHECK_IMAGE"
e2e_boot --disk "$E2E_WORK/esp.img"
e2e_expect "runtime check: start" 90
e2e_expect "exit: static destructor" 60
e2e_expect "Load Error" 30
verify_output firmware "$(e2e_console)"
e2e_console | grep -qxF "runtime check: 0 arguments:" || e2e_fail "firmware: arguments without a shell"

# The firmware goes on to its shell; started from there, the image gets the
# command line as narrow arguments.
e2e_expect "Press ESC" 60
e2e_send "$E2E_KEY_ESC"
e2e_expect "Shell>" 30
e2e_mark
e2e_send 'fs0:\\EFI\\BOOT\\BOOTX64.EFI alpha  beta\r'
e2e_expect "exit: static destructor" 60
verify_output "firmware, from the shell" "$(e2e_since_mark)"
e2e_since_mark | grep -qiE '^runtime check: 3 arguments: \[fs0:\\EFI\\BOOT\\BOOTX64\.EFI\] \[alpha\] \[beta\]$' ||
  e2e_fail "firmware: arguments from the shell"
e2e_stop
e2e_pass
