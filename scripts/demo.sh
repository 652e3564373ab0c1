#!/usr/bin/env bash
# Boots the demo configuration under QEMU with the real OVMF firmware.
#
# On a terminal the serial console is the terminal: type into the menu,
# Ctrl-A X ends QEMU.  Without a terminal (a pipe, CI) the console is shown
# as text and the run ends by itself once the loader has gone back to the
# firmware, or after DEMO_SECONDS (default 90).
#
# The ESP holds build/loader.efi as \EFI\BOOT\BOOTX64.EFI, demo/demo.xml as
# its configuration \EFI\BOOT\BOOTX64.xml, and the tree demo/esp/ if present.
set -euo pipefail

SOURCE_DIR=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
export SOURCE_DIR
export EFI_IMAGE=${EFI_IMAGE:-$SOURCE_DIR/build/loader.efi}
DEMO_SECONDS=${DEMO_SECONDS:-90}
# Past the demo's own time limit, QEMU is ended in any case.
export E2E_QEMU_LIMIT=$((DEMO_SECONDS + 30))
source "$SOURCE_DIR/tests/e2e/lib.sh"

e2e_init
files=()
[ -f "$SOURCE_DIR/demo/demo.xml" ] && files+=("$SOURCE_DIR/demo/demo.xml=/EFI/BOOT/BOOTX64.xml")
if [ -d "$SOURCE_DIR/demo/esp" ]; then
  for entry in "$SOURCE_DIR/demo/esp"/*; do
    [ -e "$entry" ] && files+=("$entry=/$(basename "$entry")")
  done
fi
e2e_make_esp "$E2E_WORK/esp.img" "${files[@]}"

if [ -t 0 ] && [ -t 1 ]; then
  echo "demo: booting; the serial console follows.  Ctrl-A X ends QEMU."
  cp "$E2E_OVMF_DIR/OVMF_VARS_4M.fd" "$E2E_WORK/vars.fd"
  qemu-system-x86_64 -machine q35,accel=tcg -m "$E2E_MEMORY" -smp 1 \
    -drive "if=pflash,format=raw,unit=0,readonly=on,file=$E2E_OVMF_DIR/OVMF_CODE_4M.fd" \
    -drive "if=pflash,format=raw,unit=1,file=$E2E_WORK/vars.fd" \
    -nodefaults -vga std -display none -serial mon:stdio -net none -no-reboot \
    -drive "format=raw,file=$E2E_WORK/esp.img"
  exit 0
fi

echo "demo: no terminal; showing the console for at most $DEMO_SECONDS s"
e2e_boot --disk "$E2E_WORK/esp.img"
# The console as it comes, as plain text.
tail -c +1 -F --pid="$E2E_QEMU_PID" "$E2E_RAW" 2>/dev/null | e2e_strip_stream &
follower=$!
if e2e_wait_for "Load Error" "$DEMO_SECONDS" >/dev/null; then
  sleep 0.5
  result="the loader went back to the firmware after $(e2e_elapsed) s"
else
  result="time limit of $DEMO_SECONDS s reached"
fi
e2e_stop
wait "$follower" 2>/dev/null || true
echo
echo "demo: $result"
