#!/usr/bin/env bash
# The exact runtime reports of a run that cannot go on: no configuration, a
# malformed one, and a failing job (which stops the run before the menu).
# Each report is followed by the 10-second pause and the return to the
# firmware.
set -uo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
e2e_init

# Boots an ESP holding the given files and checks the report's head lines.
run_case() {
  local name=$1 head=$2 second=$3
  shift 3
  e2e_note "case: $name"
  e2e_make_esp "$E2E_WORK/$name.img" "$@"
  e2e_boot --disk "$E2E_WORK/$name.img"
  e2e_expect "Starting x64 UEFI loader (v.1.1.236)..." 90
  e2e_expect "Runtime error:" 30
  # The report as printed: the head line right below "Runtime error:".
  e2e_console | grep -A1 -F "Runtime error:" | tail -n 1 | grep -qxF -- "$head" ||
    e2e_fail "$name: head line is not '$head'"
  e2e_expect "$second" 10
  e2e_expect "| \$module: kelvorn_efia64_236" 10
  local before=$SECONDS
  e2e_expect_return 40
  # The firmware gets control back only after the pause.
  [ $((SECONDS - before)) -ge 8 ] || e2e_fail "$name: no 10 s pause before the return"
  e2e_stop
}

run_case missing "Error 0x40007: Error occurred while opening the file." "| function: OpenLoaderFileUsingFileSystemProtocol"

printf '<Config>\n  <Menu>\n</Config>\n' >"$E2E_WORK/bad.xml"
run_case malformed "Error 0x1480009: The configuration file has an incorrect format." \
  "| file: loader/efi/config.cpp:" "$E2E_WORK/bad.xml=/EFI/BOOT/BOOTX64.xml"

cat >"$E2E_WORK/job.xml" <<'XML'
<Config>
  <Menu><Topic Text="MENU MUST NOT SHOW"/><Entry Key="a"><Chainload/></Entry></Menu>
  <Jobs>
    <Rename FileNameSource="\EFI\missing.cfg" FileNameTarget="\EFI\current.cfg"/>
    <Rename FileNameSource="\EFI\BOOT\BOOTX64.xml" FileNameTarget="\EFI\moved.xml"/>
  </Jobs>
</Config>
XML
run_case job "Error 0x40007: Error occurred while opening the file." "| line: 0x" \
  "$E2E_WORK/job.xml=/EFI/BOOT/BOOTX64.xml"
e2e_expect_absent "MENU MUST NOT SHOW"
[ "$(e2e_console | grep -cF 'Runtime error:')" = 1 ] || e2e_fail "more than one report"
# The second job never ran: the configuration is still where it was.
mdir -i "$E2E_WORK/job.img" ::/EFI/BOOT/BOOTX64.xml >/dev/null 2>&1 </dev/null ||
  e2e_fail "the job behind the failing one ran"
e2e_pass
