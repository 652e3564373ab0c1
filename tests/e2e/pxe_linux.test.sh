#!/usr/bin/env bash
# Linux over the network with no disk attached: the firmware's PXE client
# fetches the loader as rescue/rescue.v2.efi, the loader reads
# rescue/rescue.v2.xml over TFTP and shows its menu, and its entries read
# Debian's kernel and two RAM disks (gzip and xz) from the same server by
# relative names.  Two boots:
#   1. the Linux entry: the guest sees the configured command line and the
#      files of both archives;
#   2. an entry whose kernel is not on the server: the exact report, the
#      pause, and the return to the firmware.
set -uo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
source "$(dirname "${BASH_SOURCE[0]}")/linux_guest.sh"
e2e_init
e2e_require xz gzip cpio
linux_guest_prepare

tftp=$E2E_WORK/tftp
mkdir -p "$tftp/rescue"
cp "$EFI_IMAGE" "$tftp/rescue/rescue.v2.efi"
cp "$LINUX_KERNEL" "$tftp/vmlinuz"
# The loader writes the paths of its own device with backslashes, and the
# name goes to the server byte for byte.  QEMU's server maps no names: what
# it serves for "rescue/extra.xz" is the file whose name holds the
# backslash.
linux_guest_ramdisk_pair "$tftp/initrd.gz" "$tftp/rescue\\extra.xz" \
  "gzip.txt=fetched in the gzip archive" "xz.txt=fetched in the xz archive"
cat >"$tftp/rescue/rescue.v2.xml" <<'XML'
<Config>
  <Menu>
    <Topic Text="NETWORK RESCUE"/>
    <Entry Key="1" Text="1) Linux over TFTP">
      <LoadKernel>
        <Loading Text="Fetching the rescue system..."/>
        <Kernel Path="vmlinuz" Arguments="console=ttyS0 marker=network"/>
        <Ramdisk Path="initrd.gz"/>
        <Ramdisk Path="rescue/extra.xz"/>
      </LoadKernel>
    </Entry>
    <Entry Key="2" Text="2) kernel not on the server">
      <LoadKernel>
        <Loading Text="Fetching a kernel that is not there..."/>
        <Kernel Path="vmlinuz-missing" Arguments="console=ttyS0"/>
        <Ramdisk Path="initrd.gz"/>
      </LoadKernel>
    </Entry>
  </Menu>
</Config>
XML

pxe_boot() {
  e2e_boot -- -netdev "user,id=n0,restrict=on,tftp=$tftp,bootfile=rescue/rescue.v2.efi" \
    -device virtio-net-pci,netdev=n0,romfile=
  e2e_expect "Starting x64 UEFI loader (v.1.1.236)..." 180
  e2e_expect "2) kernel not on the server" 60
  sleep 1
  e2e_mark
}

# The menu's first wait resets the console input, which drops a key that
# came before it: a key whose action does not show is typed once more.
menu_key() {
  e2e_send "$1"
  e2e_wait_for "$2" 10 && return 0
  e2e_note "no sign of the first key: typing it again"
  e2e_send "$1"
  e2e_expect "$2" 20
}

guest() { e2e_since_mark | grep -qxF "GUEST: $1" || e2e_fail "the guest did not report '$1'"; }

# ---- 1: Linux over TFTP
e2e_note "case: kernel and RAM disks over TFTP"
pxe_boot
menu_key 1 "Fetching the rescue system..."
e2e_expect "Loading protected mode kernel..." 120
e2e_expect "Linux version" 60
e2e_expect "GUEST: done" 120
e2e_wait_exit 30
e2e_expect_absent "Runtime error"
guest "cmdline=[console=ttyS0 marker=network]"
guest "ramdisk file /rd/gzip.txt: fetched in the gzip archive"
guest "ramdisk file /rd/xz.txt: fetched in the xz archive"

# ---- 2: the kernel is missing on the server
e2e_note "case: kernel missing on the server"
pxe_boot
menu_key 2 "Fetching a kernel that is not there..."
e2e_expect "Runtime error:" 60
# The network road fails in silence; the report is that of the last road
# tried, the firmware's load-file service of the network card, which
# refuses anything but a boot request.
expected=(
  'Error 0x40007: Error occurred while opening the file\.'
  '\| line: 0x[0-9a-f]+'
  '\| file: loader/efi/file\.cpp:[0-9]+'
  '\| function: OpenLoaderFile'
  '\| \$module: kelvorn_efia64_236'
  '\|'
  '\| error 0x1'
  '\| line: 0x[0-9a-f]+'
  '\| file: core/common/error_decode\.cpp:[0-9]+'
  '\| function: GetUefiErrorFromEfiStatus'
  '\| \$module: kelvorn_efia64_236'
)
before=$SECONDS
e2e_wait_for "| function: GetUefiErrorFromEfiStatus" 10
e2e_expect_return 40
[ $((SECONDS - before)) -ge 8 ] || e2e_fail "no 10 s pause before the return to the firmware"
# The report and the line behind it: no further cause.
mapfile -t report < <(e2e_since_mark | grep -A$((${#expected[@]} + 1)) -xF "Runtime error:" | tail -n +2)
for i in "${!expected[@]}"; do
  [[ ${report[i]-} =~ ^${expected[i]}$ ]] ||
    e2e_fail "report line $((i + 1)) is '${report[i]-}', not /${expected[i]}/"
done
[[ ${report[${#expected[@]}]-} != "|"* ]] || e2e_fail "the report goes on: '${report[${#expected[@]}]}'"
e2e_expect_absent "Loading protected mode kernel..."
e2e_expect_absent "Linux version"
e2e_pass
