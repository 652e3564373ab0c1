#!/usr/bin/env bash
# bench/linux.sh BENCH_BUILD_DIR: Debian's kernel with a 64 MiB RAM disk
# under QEMU/OVMF (TCG), started two ways from the same FAT32 disk:
#   loader: the loader's LoadKernel action (its own device, no menu);
#   stub:   the firmware's shell runs the kernel itself as an EFI program
#           ("vmlinuz initrd=..." from startup.nsh).
# Measured on the serial console, each line stamped as it arrives:
#   loader: banner -> the kernel's first line, with and without the loader's
#           fixed 4-second wait before the command-line editor;
#   stub:   the shell's command line -> the kernel's first line;
#   the loader's read throughput: its "Loading" line (before the first file
#   is opened) to "Loading protected mode kernel..." (all files read), and
#   the stub's: the shell's command line to "EFI stub: Loaded initrd";
#   and, for both, QEMU's start to the kernel's first line.
# Best of three runs each.  The image is built (make efi) when missing;
# EFI_IMAGE overrides.  The kernel comes from the end-to-end cache.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
export SOURCE_DIR=$(cd "$here/.." && pwd)
: "${EFI_IMAGE:=$SOURCE_DIR/build/loader.efi}"
if [ ! -f "$EFI_IMAGE" ]; then
  (cd "$SOURCE_DIR" && make -s -f loader/efi/efi.mk efi BUILD=build >/dev/null)
fi
export EFI_IMAGE
source "$SOURCE_DIR/tests/e2e/lib.sh"
source "$SOURCE_DIR/tests/e2e/linux_guest.sh"
e2e_init
e2e_require xz cpio awk
linux_guest_prepare >/dev/null
runs=${BENCH_LINUX_RUNS:-3}
memory=768

# The RAM disk: busybox and /init, and 64 MiB of data that does not
# compress, as one plain archive of 64 MiB and a little.
tree=$E2E_WORK/tree
mkdir -p "$tree"
head -c $((64 << 20)) /dev/urandom >"$tree/payload"
linux_guest_base_cpio "$E2E_WORK/base.cpio"
linux_guest_pack "$tree" "$E2E_WORK/payload.cpio"
cat "$E2E_WORK/base.cpio" "$E2E_WORK/payload.cpio" >"$E2E_WORK/initrd.img"
kernel_bytes=$(stat -c %s "$LINUX_KERNEL")
initrd_bytes=$(stat -c %s "$E2E_WORK/initrd.img")

cat >"$E2E_WORK/boot.xml" <<'XML'
<Config>
  <LoadKernel>
    <Loading Text="Reading kernel and RAM disk..."/>
    <Kernel Path="/boot/vmlinuz" Arguments="console=ttyS0"/>
    <Ramdisk Path="/boot/initrd.img"/>
  </LoadKernel>
</Config>
XML
printf 'fs0:\r\n\\boot\\vmlinuz console=ttyS0 initrd=\\boot\\initrd.img\r\n' >"$E2E_WORK/startup.nsh"
e2e_make_esp "$E2E_WORK/loader.img" --size 200 "$E2E_WORK/boot.xml=/EFI/BOOT/BOOTX64.xml" \
  "$LINUX_KERNEL=/boot/vmlinuz" "$E2E_WORK/initrd.img=/boot/initrd.img"
e2e_make_esp "$E2E_WORK/stub.img" --size 200 --no-loader "$E2E_WORK/startup.nsh=/startup.nsh" \
  "$LINUX_KERNEL=/boot/vmlinuz" "$E2E_WORK/initrd.img=/boot/initrd.img"

# run DISK LOG: one boot; every console line stamped with the host's clock.
# A key goes in once the shell offers to skip its count-down.
run() {
  local disk=$1 log=$2 keys=$E2E_WORK/keys
  cp "$E2E_OVMF_DIR/OVMF_VARS_4M.fd" "$E2E_WORK/vars.fd"
  rm -f "$keys"; mkfifo "$keys"
  exec {fd}<>"$keys"
  echo "$EPOCHREALTIME QEMU started" >"$log.start"
  timeout -s KILL "${BENCH_LINUX_LIMIT:-300}" qemu-system-x86_64 -machine q35,accel=tcg -m $memory -smp 1 \
    -drive "if=pflash,format=raw,unit=0,readonly=on,file=$E2E_OVMF_DIR/OVMF_CODE_4M.fd" \
    -drive "if=pflash,format=raw,unit=1,file=$E2E_WORK/vars.fd" \
    -nodefaults -display none -monitor none -serial stdio -net none -no-reboot -vga std \
    -drive "format=raw,file=$disk" <"$keys" 2>/dev/null |
    while IFS= read -r line; do
      printf '%s %s\n' "$EPOCHREALTIME" "$line"
      case $line in
        *"any other key to continue"*) printf '\r' >&"$fd" ;;
      esac
    done >"$log.raw"
  exec {fd}>&-
  { cat "$log.start"; e2e_strip <"$log.raw"; } >"$log"
}

# stamp LOG PATTERN: the time of the first line holding PATTERN (fixed text).
stamp() { P=$2 awk 'index($0, ENVIRON["P"]) { print $1; exit }' "$1"; }

best() { printf '%s\n' "$@" | sort -g | head -n 1; }
since() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }
L=(); R=(); LQ=(); S=(); SR=(); SQ=()
for i in $(seq "$runs"); do
  log=$E2E_WORK/loader.$i.log
  run "$E2E_WORK/loader.img" "$log"
  qemu=$(stamp "$log" "QEMU started")
  banner=$(stamp "$log" "Starting x64 UEFI loader")
  reading=$(stamp "$log" "Reading kernel and RAM disk...")
  loaded=$(stamp "$log" "Loading protected mode kernel...")
  first=$(stamp "$log" "Linux version")
  marker=$(stamp "$log" "GUEST: init started")
  [ -n "$banner" ] && [ -n "$first" ] && [ -n "$marker" ] ||
    { echo "linux: loader run $i did not reach the guest (log kept: $E2E_WORK)" >&2; E2E_KEEP=1; exit 1; }
  L+=("$(since "$banner" "$first")"); R+=("$(since "$reading" "$loaded")"); LQ+=("$(since "$qemu" "$first")")

  log=$E2E_WORK/stub.$i.log
  run "$E2E_WORK/stub.img" "$log"
  qemu=$(stamp "$log" "QEMU started")
  start=$(stamp "$log" 'initrd=\boot\initrd.img')
  loaded=$(stamp "$log" "EFI stub: Loaded initrd")
  first=$(stamp "$log" "Linux version")
  marker=$(stamp "$log" "GUEST: init started")
  [ -n "$start" ] && [ -n "$loaded" ] && [ -n "$first" ] && [ -n "$marker" ] ||
    { echo "linux: stub run $i did not reach the guest (log kept: $E2E_WORK)" >&2; E2E_KEEP=1; exit 1; }
  S+=("$(since "$start" "$first")"); SR+=("$(since "$start" "$loaded")"); SQ+=("$(since "$qemu" "$first")")
done

awk -v l="$(best "${L[@]}")" -v r="$(best "${R[@]}")" -v lq="$(best "${LQ[@]}")" \
  -v s="$(best "${S[@]}")" -v sr="$(best "${SR[@]}")" -v sq="$(best "${SQ[@]}")" \
  -v kb="$kernel_bytes" -v ib="$initrd_bytes" -v n="$runs" 'BEGIN {
  mib = (kb + ib) / 1048576
  printf "kernel %.1f MiB + RAM disk %.1f MiB, best of %d runs (QEMU TCG, OVMF, 1 CPU)\n", kb / 1048576, ib / 1048576, n
  printf "loader: banner -> first kernel line:        %6.2f s (%.2f s without the fixed 4 s wait)\n", l, l - 4
  printf "stub:   shell command -> first kernel line: %6.2f s\n", s
  printf "ratio loader/stub: %.2fx (%.2fx without the wait)\n", l / s, (l - 4) / s
  printf "QEMU start -> first kernel line: loader %.2f s, stub %.2f s (shell start-up included)\n", lq, sq
  printf "reading kernel and RAM disk: loader %.2f s = %.1f MiB/s; stub %.2f s = %.1f MiB/s\n", r, mib / r, sr, mib / sr
}'
