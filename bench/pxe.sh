#!/usr/bin/env bash
# bench/pxe.sh BENCH_BUILD_DIR: network boot with no disk, under QEMU/OVMF
# (TCG) with QEMU's built-in DHCP and TFTP server.  The firmware's PXE
# client fetches the loader, and the loader's LoadKernel action (no menu)
# reads Debian's kernel and a RAM disk of 64 MiB and a little over TFTP.
# Measured on the serial console, each line stamped as it arrives:
#   the firmware's "Downloading NBP file" (the start of the loader's
#   download) -> the kernel's first line, and the same from the loader's
#   banner, with and without the loader's fixed 4-second wait;
#   the loader's TFTP read throughput: its "Loading" line (before the first
#   file is opened) to "Loading protected mode kernel..." (all files read);
#   the firmware's own download of the loader, for comparison: "Downloading
#   NBP file" to "NBP file downloaded successfully";
#   and QEMU's start to the kernel's first line.
# Best of three runs.  The image is built (make efi) when missing; EFI_IMAGE
# overrides.  BENCH_PXE_RUNS and BENCH_PXE_RAMDISK_MIB change the run count
# and the size of the RAM disk's payload.  The kernel comes from the
# end-to-end cache.
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
e2e_require cpio awk
linux_guest_prepare >/dev/null
runs=${BENCH_PXE_RUNS:-3}
payload_mib=${BENCH_PXE_RAMDISK_MIB:-64}
memory=768

# The server's tree: the loader under a subdirectory, as DHCP names it;
# kernel and RAM disk (busybox, /init and data that does not compress) at
# the top.
tftp=$E2E_WORK/tftp
mkdir -p "$tftp/rescue" "$E2E_WORK/tree"
cp "$EFI_IMAGE" "$tftp/rescue/loader.efi"
cp "$LINUX_KERNEL" "$tftp/vmlinuz"
head -c $((payload_mib << 20)) /dev/urandom >"$E2E_WORK/tree/payload"
linux_guest_base_cpio "$E2E_WORK/base.cpio"
linux_guest_pack "$E2E_WORK/tree" "$E2E_WORK/payload.cpio"
# A file behind the payload: the guest sees it only if every block of the
# long transfer landed in its place.
linux_guest_files_cpio "$E2E_WORK/tail.cpio" "tail.txt=read behind the payload"
cat "$E2E_WORK/base.cpio" "$E2E_WORK/payload.cpio" "$E2E_WORK/tail.cpio" >"$tftp/initrd.img"
loader_bytes=$(stat -c %s "$EFI_IMAGE")
kernel_bytes=$(stat -c %s "$LINUX_KERNEL")
initrd_bytes=$(stat -c %s "$tftp/initrd.img")
cat >"$tftp/rescue/loader.xml" <<'XML'
<Config>
  <LoadKernel>
    <Loading Text="Reading kernel and RAM disk..."/>
    <Kernel Path="vmlinuz" Arguments="console=ttyS0"/>
    <Ramdisk Path="initrd.img"/>
  </LoadKernel>
</Config>
XML

# run LOG: one boot; every console line stamped with the host's clock as
# it arrives (LOG.raw), matched as it came, escapes and all.
run() {
  local log=$1
  cp "$E2E_OVMF_DIR/OVMF_VARS_4M.fd" "$E2E_WORK/vars.fd"
  echo "$EPOCHREALTIME QEMU started" >"$log"
  timeout -s KILL "${BENCH_PXE_LIMIT:-300}" qemu-system-x86_64 -machine q35,accel=tcg -m $memory -smp 1 \
    -drive "if=pflash,format=raw,unit=0,readonly=on,file=$E2E_OVMF_DIR/OVMF_CODE_4M.fd" \
    -drive "if=pflash,format=raw,unit=1,file=$E2E_WORK/vars.fd" \
    -nodefaults -display none -monitor none -serial stdio -net none -no-reboot -vga std \
    -netdev "user,id=n0,restrict=on,tftp=$tftp,bootfile=rescue/loader.efi" \
    -device virtio-net-pci,netdev=n0,romfile= </dev/null 2>/dev/null |
    while IFS= read -r line; do
      printf '%s %s\n' "$EPOCHREALTIME" "$line"
    done >>"$log"
}

# stamp LOG PATTERN: the time of the first line holding PATTERN (fixed text).
stamp() { P=$2 awk 'index($0, ENVIRON["P"]) { print $1; exit }' "$1"; }

best() { printf '%s\n' "$@" | sort -g | head -n 1; }
since() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }
D=(); B=(); R=(); N=(); Q=()
for i in $(seq "$runs"); do
  log=$E2E_WORK/pxe.$i.log
  run "$log"
  qemu=$(stamp "$log" "QEMU started")
  download=$(stamp "$log" "Downloading NBP file")
  downloaded=$(stamp "$log" "NBP file downloaded successfully")
  banner=$(stamp "$log" "Starting x64 UEFI loader")
  reading=$(stamp "$log" "Reading kernel and RAM disk...")
  loaded=$(stamp "$log" "Loading protected mode kernel...")
  first=$(stamp "$log" "Linux version")
  marker=$(stamp "$log" "GUEST: ramdisk file /rd/tail.txt: read behind the payload")
  [ -n "$download" ] && [ -n "$downloaded" ] && [ -n "$banner" ] && [ -n "$reading" ] &&
    [ -n "$loaded" ] && [ -n "$first" ] && [ -n "$marker" ] ||
    { echo "pxe: run $i did not reach the guest or the file behind the payload (log kept: $E2E_WORK)" >&2; E2E_KEEP=1; exit 1; }
  D+=("$(since "$download" "$first")"); B+=("$(since "$banner" "$first")")
  R+=("$(since "$reading" "$loaded")"); N+=("$(since "$download" "$downloaded")")
  Q+=("$(since "$qemu" "$first")")
done

awk -v d="$(best "${D[@]}")" -v b="$(best "${B[@]}")" -v r="$(best "${R[@]}")" \
  -v nb="$(best "${N[@]}")" -v q="$(best "${Q[@]}")" -v lb="$loader_bytes" \
  -v kb="$kernel_bytes" -v ib="$initrd_bytes" -v n="$runs" 'BEGIN {
  mib = (kb + ib) / 1048576
  printf "over TFTP: kernel %.1f MiB + RAM disk %.1f MiB, loader %.1f MiB; best of %d runs (QEMU TCG, OVMF, 1 CPU)\n", kb / 1048576, ib / 1048576, lb / 1048576, n
  printf "firmware download start -> first kernel line: %6.2f s (%.2f s without the fixed 4 s wait)\n", d, d - 4
  printf "loader banner -> first kernel line:           %6.2f s (%.2f s without the fixed 4 s wait)\n", b, b - 4
  printf "QEMU start -> first kernel line:              %6.2f s\n", q
  printf "loader reading kernel and RAM disk over TFTP: %.2f s = %.1f MiB/s\n", r, mib / r
  printf "firmware downloading the loader:              %.2f s = %.1f MiB/s\n", nb, lb / 1048576 / nb
}'
