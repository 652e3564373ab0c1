#!/usr/bin/env bash
# Debian's real kernel booted from a partition named by its GPT unique GUID.
# A second virtual disk, partitioned by sgdisk, holds two FAT partitions
# with the same paths: a decoy (FAT16, first) and the target (FAT32,
# second).  Only the target's files may reach the guest, so a loader that
# takes the wrong partition, or the first one it finds, fails here.  A
# fourth partition, ext4 as mke2fs makes it today (extents, 64-bit,
# metadata checksums), boots the same way.
# Then a GUID that no partition carries: the exact report, its cause
# "Failed to open the volume by GUID.", the pause and the return; and a
# third partition with no file system: "Failed to mount the partition.".
set -uo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
source "$(dirname "${BASH_SOURCE[0]}")/linux_guest.sh"
e2e_init
e2e_require sgdisk mkfs.fat mcopy mke2fs gzip xz cpio dd
linux_guest_prepare

decoy_guid=0B6A4C1E-5D27-4F08-9E3C-1A2B3C4D5E6F
target_guid=7D3F2A91-C4E8-4B6D-A05F-98E1D2C3B4A5
missing_guid=7D3F2A91-C4E8-4B6D-A05F-98E1D2C3B4A6
blank_guid=C0FFEE00-1234-4CDE-8F00-0A0B0C0D0E0F
ext4_guid=3E9C5B71-0D24-4F6A-B8E3-5C7D9A1F2B60

# Two RAM disks, as on the loader's own device: gzip, then xz behind it.
ramdisks() {
  local dir=$1 who=$2
  mkdir -p "$dir"
  linux_guest_ramdisk_pair "$dir/initrd.gz" "$dir/extra.xz" \
    "part.txt=read from the $who partition" "second.txt=second RAM disk of the $who partition"
}
ramdisks "$E2E_WORK/decoy" decoy
ramdisks "$E2E_WORK/target" target
ramdisks "$E2E_WORK/ext4" ext4

# fat_partition IMAGE MiB FATBITS DIR: a partition's file system, made apart
# and written into the disk afterwards; mtools never sees the disk itself.
fat_partition() {
  local image=$1 size=$2 bits=$3 dir=$4
  rm -f "$image"
  mkfs.fat -C -F "$bits" -n RESCUE "$image" $((size * 1024)) >/dev/null || e2e_fail "mkfs.fat failed"
  mmd -i "$image" ::/boot ::/boot/Images </dev/null || e2e_fail "mmd failed"
  mcopy -i "$image" "$LINUX_KERNEL" "::/boot/Images/Kernel Image.bin" </dev/null &&
    mcopy -i "$image" "$dir/initrd.gz" ::/boot/initrd.gz </dev/null &&
    mcopy -i "$image" "$dir/extra.xz" "::/boot/Images/extra ramdisk.xz" </dev/null ||
    e2e_fail "mcopy failed"
}
fat_partition "$E2E_WORK/decoy.fat" 20 16 "$E2E_WORK/decoy"
fat_partition "$E2E_WORK/target.fat" 40 32 "$E2E_WORK/target"

tree=$E2E_WORK/ext4/tree
mkdir -p "$tree/boot/linux"
cp "$LINUX_KERNEL" "$tree/boot/linux/vmlinuz"
cp "$E2E_WORK/ext4/initrd.gz" "$E2E_WORK/ext4/extra.xz" "$tree/boot/linux/"
rm -f "$E2E_WORK/ext4.img"
truncate -s 24M "$E2E_WORK/ext4.img"
mke2fs -q -F -t ext4 -L rescue -d "$tree" "$E2E_WORK/ext4.img" || e2e_fail "mke2fs failed"

disk=$E2E_WORK/disk.img
rm -f "$disk"
truncate -s 96M "$disk"
sgdisk -o \
  -n 1:2048:+20M -t 1:0700 -c 1:decoy -u "1:$decoy_guid" \
  -n 2:0:+40M -t 2:0700 -c 2:rescue -u "2:$target_guid" \
  -n 3:0:+1M -t 3:0700 -c 3:blank -u "3:$blank_guid" \
  -n 4:0:+24M -t 4:8300 -c 4:linux -u "4:$ext4_guid" "$disk" >/dev/null ||
  e2e_fail "sgdisk failed"
first_sector() { sgdisk -i "$1" "$disk" | awk '/^First sector:/ { print $3 }'; }
dd if="$E2E_WORK/decoy.fat" of="$disk" bs=512 seek="$(first_sector 1)" conv=notrunc status=none &&
  dd if="$E2E_WORK/target.fat" of="$disk" bs=512 seek="$(first_sector 2)" conv=notrunc status=none &&
  dd if="$E2E_WORK/ext4.img" of="$disk" bs=512 seek="$(first_sector 4)" conv=notrunc status=none ||
  e2e_fail "dd failed"
sgdisk -v "$disk" | grep -q "No problems found" || e2e_fail "the test disk's GPT is not sound"

# The configuration spells the target's GUID in lower case: the braces-free
# text form is read without regard to case.  Both path flavours are used.
cat >"$E2E_WORK/boot.xml" <<XML
<Config>
  <Menu>
    <Topic Text="Rescue media"/>
    <Entry Key="1" Text="1: Linux from the rescue partition">
      <LoadKernel>
        <Loading Text="Loading from the partition..."/>
        <GPT Guid="${target_guid,,}"/>
        <Kernel Path="\\boot\\Images\\Kernel Image.bin" Arguments="console=ttyS0 marker=gpt"/>
        <Ramdisk Path="/boot/initrd.gz"/>
        <Ramdisk Path="/boot/Images/extra ramdisk.xz"/>
      </LoadKernel>
    </Entry>
    <Entry Key="2" Text="2: Linux from a partition that is not there">
      <LoadKernel>
        <GPT Guid="$missing_guid"/>
        <Kernel Path="\\boot\\Images\\Kernel Image.bin" Arguments="console=ttyS0"/>
      </LoadKernel>
    </Entry>
    <Entry Key="4" Text="4: Linux from the ext4 partition">
      <LoadKernel>
        <Loading Text="Loading from ext4..."/>
        <GPT Guid="$ext4_guid"/>
        <Kernel Path="/boot/linux/vmlinuz" Arguments="console=ttyS0 marker=ext4"/>
        <Ramdisk Path="/boot/linux/initrd.gz"/>
        <Ramdisk Path="/boot/linux/extra.xz"/>
      </LoadKernel>
    </Entry>
    <Entry Key="3" Text="3: Linux from a partition without a file system">
      <LoadKernel>
        <GPT Guid="$blank_guid"/>
        <Kernel Path="/vmlinuz" Arguments="console=ttyS0"/>
      </LoadKernel>
    </Entry>
  </Menu>
</Config>
XML
e2e_make_esp "$E2E_WORK/esp.img" "$E2E_WORK/boot.xml=/EFI/BOOT/BOOTX64.xml"

guest() { e2e_since_mark | grep -F "GUEST: $1" >/dev/null || e2e_fail "the guest did not report '$1'"; }

e2e_note "case: kernel and RAM disks from the partition named by GUID"
e2e_boot --disk "$E2E_WORK/esp.img" --disk "$disk"
e2e_expect "2: Linux from a partition that is not there" 90
e2e_send 1
e2e_expect "Loading from the partition..." 30
e2e_expect "Loading protected mode kernel..." 60
e2e_expect "GUEST: done" 120
e2e_wait_exit 30
e2e_expect_absent "Runtime error"
guest "cmdline=[console=ttyS0 marker=gpt]"
guest "ramdisk file /rd/part.txt: read from the target partition"
guest "ramdisk file /rd/second.txt: second RAM disk of the target partition"
e2e_expect_absent "decoy"
e2e_stop

e2e_note "case: kernel and RAM disks from the ext4 partition"
e2e_boot --disk "$E2E_WORK/esp.img" --disk "$disk"
e2e_expect "2: Linux from a partition that is not there" 90
e2e_mark
e2e_send 4
e2e_expect "Loading from ext4..." 30
e2e_expect "Loading protected mode kernel..." 60
e2e_expect "GUEST: done" 120
e2e_wait_exit 30
e2e_expect_absent "Runtime error"
guest "cmdline=[console=ttyS0 marker=ext4]"
guest "ramdisk file /rd/part.txt: read from the ext4 partition"
guest "ramdisk file /rd/second.txt: second RAM disk of the ext4 partition"
e2e_stop

e2e_note "case: no partition carries the GUID"
e2e_boot --disk "$E2E_WORK/esp.img" --disk "$disk"
e2e_expect "2: Linux from a partition that is not there" 90
e2e_send 2
e2e_expect "Runtime error:" 30
head="Error 0x1480008: Cannot get file \"\\boot\\Images\\Kernel Image.bin\" from the partition with GUID $missing_guid."
e2e_console | grep -A1 -F "Runtime error:" | tail -n 1 | grep -qxF -- "$head" ||
  e2e_fail "the report's head line is not '$head'"
e2e_expect "| error 0x1480018: Failed to open the volume by GUID." 10
e2e_expect "| \$module: kelvorn_efia64_236" 10
before=$SECONDS
e2e_expect_return 40
[ $((SECONDS - before)) -ge 8 ] || e2e_fail "no 10 s pause before the return"
e2e_expect_absent "Loading protected mode kernel..."
e2e_stop

e2e_note "case: the partition holds no file system"
e2e_boot --disk "$E2E_WORK/esp.img" --disk "$disk"
e2e_expect "2: Linux from a partition that is not there" 90
e2e_send 3
e2e_expect "Runtime error:" 30
head="Error 0x1480008: Cannot get file \"/vmlinuz\" from the partition with GUID $blank_guid."
e2e_console | grep -A1 -F "Runtime error:" | tail -n 1 | grep -qxF -- "$head" ||
  e2e_fail "the report's head line is not '$head'"
e2e_expect "| error 0x148000e: Failed to mount the partition." 10
e2e_expect_return 40
e2e_pass
