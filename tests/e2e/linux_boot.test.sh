#!/usr/bin/env bash
# Debian's real kernel booted by the loader from its own device, through a
# menu entry with two RAM disks (gzip and xz, packed one behind the other).
# Two boots:
#   1. the configured command line with vga=0x312: the guest sees both
#      archives' files, its /proc/cmdline and a 640x480 EFI frame buffer;
#   2. 'e' typed during the 4-second wait, the line edited in the one-row
#      editor (typing, a move left, a backspace): the edited line reaches
#      /proc/cmdline and its vga=0x315 gives an 800x600 frame buffer.
set -uo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
source "$(dirname "${BASH_SOURCE[0]}")/linux_guest.sh"
e2e_init
e2e_require xz gzip cpio
linux_guest_prepare

linux_guest_ramdisk_pair "$E2E_WORK/initrd.gz" "$E2E_WORK/extra.xz" \
  "gzip.txt=packed in the gzip archive" "xz.txt=packed in the xz archive"

cat >"$E2E_WORK/boot.xml" <<'XML'
<Config>
  <Menu>
    <Topic Text="Rescue media"/>
    <Entry Key="1" Text="1: Linux at 640x480">
      <LoadKernel>
        <Loading Text="Loading the rescue system..."/>
        <Kernel Path="/boot/vmlinuz" Arguments="console=ttyS0 vga=0x312 marker=configured"/>
        <Ramdisk Path="/boot/initrd.gz"/>
        <Ramdisk Path="\boot\extra.xz"/>
      </LoadKernel>
    </Entry>
    <Entry Key="2" Text="2: Linux, line to edit">
      <LoadKernel>
        <Kernel Path="\boot\vmlinuz" Arguments="console=ttyS0"/>
        <Ramdisk Path="/boot/initrd.gz"/>
        <Ramdisk Path="/boot/extra.xz"/>
      </LoadKernel>
    </Entry>
  </Menu>
</Config>
XML
e2e_make_esp "$E2E_WORK/esp.img" \
  "$E2E_WORK/boot.xml=/EFI/BOOT/BOOTX64.xml" \
  "$LINUX_KERNEL=/boot/vmlinuz" \
  "$E2E_WORK/initrd.gz=/boot/initrd.gz" \
  "$E2E_WORK/extra.xz=/boot/extra.xz"

guest() { e2e_since_mark | grep -F "GUEST: $1" >/dev/null || e2e_fail "the guest did not report '$1'"; }

# ---- 1: the configured line
e2e_boot --disk "$E2E_WORK/esp.img"
e2e_expect "2: Linux, line to edit" 90
e2e_send 1
e2e_expect "Loading the rescue system..." 30
e2e_expect "Loading protected mode kernel..." 60
e2e_expect "Press <e> to edit kernel command line" 30
e2e_expect "GUEST: done" 120
e2e_wait_exit 30
e2e_expect_absent "Press <Enter> to confirm changes"
e2e_expect_absent "Video mode setup error"
guest "cmdline=[console=ttyS0 vga=0x312 marker=configured]"
guest "ramdisk file /rd/gzip.txt: packed in the gzip archive"
guest "ramdisk file /rd/xz.txt: packed in the xz archive"
guest "fb0 EFI VGA size=640,480 bpp=32"
guest "efifb: mode is 640x480x32"
e2e_note "boot 1: configured line and 640x480 reached the guest"

# ---- 2: the edited line
e2e_boot --disk "$E2E_WORK/esp.img"
e2e_expect "2: Linux, line to edit" 90
e2e_send 2
e2e_expect "Press <e> to edit kernel command line" 60
e2e_send e
e2e_expect "Press <Enter> to confirm changes, <Esc> - to keep unchanged" 10
# " vga=0x315 edited=yos", one left, backspace over the "o", then "e".
e2e_send ' vga=0x315 edited=yos'
e2e_send "$E2E_KEY_LEFT"
e2e_send '\b'
e2e_send 'e'
sleep 1
e2e_send "$E2E_KEY_ENTER"
e2e_expect "GUEST: done" 120
e2e_wait_exit 30
guest "cmdline=[console=ttyS0 vga=0x315 edited=yes]"
guest "ramdisk file /rd/gzip.txt: packed in the gzip archive"
guest "ramdisk file /rd/xz.txt: packed in the xz archive"
guest "efifb: mode is 800x600x32"
e2e_note "boot 2: the edited line and 800x600 reached the guest"
e2e_pass
