#!/usr/bin/env bash
# The Secure Boot road under a real Secure Boot: the firmware variant with
# the test key set starts the loader signed with that key, and the loader
# checks kernel and RAM disks against a digest list signed with its own
# (development) key.  Three disks, tried by the firmware in turn, each with
# the signed loader:
#   1. the kernel altered by one byte: refused, "An incorrect kernel hash.";
#   2. the gzip RAM disk altered (its header's time stamp): not listed, so
#      walked, and refused for what it holds;
#   3. everything as listed, plus an unlisted xz RAM disk of nothing but
#      plain files under "ConfigurationFiles/": the kernel boots and sees it.
set -uo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
source "$(dirname "${BASH_SOURCE[0]}")/linux_guest.sh"
e2e_init
e2e_require xz gzip cpio sbsign
[ -x "${LOADER_TOOL:-}" ] || e2e_fail "LOADER_TOOL is not set (run under ctest)"
key=${LOADER_DEV_KEY_DIR:-$SOURCE_DIR/build/dev-keys}/first.pem
[ -f "$key" ] || e2e_fail "no development key at $key"
linux_guest_prepare

linux_guest_base_cpio "$E2E_WORK/base.cpio" "gzip.txt=packed in the gzip archive"
gzip -9 -n -c "$E2E_WORK/base.cpio" >"$E2E_WORK/initrd.gz"
linux_guest_files_cpio "$E2E_WORK/extra.cpio" "xz.txt=packed in the xz archive"
xz --check=crc32 -c "$E2E_WORK/extra.cpio" >"$E2E_WORK/extra.xz"
mkdir -p "$E2E_WORK/conf/ConfigurationFiles"
echo "unlisted but harmless" >"$E2E_WORK/conf/ConfigurationFiles/site.conf"
linux_guest_pack "$E2E_WORK/conf" "$E2E_WORK/conf.cpio"
xz --check=crc32 -c "$E2E_WORK/conf.cpio" >"$E2E_WORK/conf.xz"

"$LOADER_TOOL" sign --key "$key" "$LINUX_KERNEL" "$E2E_WORK/initrd.gz" "$E2E_WORK/extra.xz" \
  >"$E2E_WORK/list.sig" || e2e_fail "loader-tool sign failed"

# A copy of FILE with the byte at OFFSET changed.
altered() {
  cp "$1" "$3"
  local byte
  byte=$(od -An -tu1 -j "$2" -N1 "$1" | tr -d ' ')
  printf "$(printf '\\%03o' $(((byte + 1) % 256)))" |
    dd of="$3" bs=1 seek="$2" conv=notrunc status=none
}
size=$(stat -c %s "$LINUX_KERNEL")
altered "$LINUX_KERNEL" $((size - 100)) "$E2E_WORK/vmlinuz.altered"
altered "$E2E_WORK/initrd.gz" 5 "$E2E_WORK/initrd.altered"  # the gzip time stamp
cmp -s "$E2E_WORK/initrd.gz" "$E2E_WORK/initrd.altered" && e2e_fail "the RAM disk was not altered"

cat >"$E2E_WORK/boot.xml" <<'XML'
<Config>
  <LoadKernel>
    <Loading Text="Checking the rescue system..."/>
    <Kernel Path="/boot/vmlinuz" Arguments="console=ttyS0 marker=secure"/>
    <Ramdisk Path="/boot/initrd.gz"/>
    <Ramdisk Path="/boot/extra.xz"/>
    <Ramdisk Path="/boot/conf.xz"/>
    <Hash Path="/boot/list.sig"/>
  </LoadKernel>
</Config>
XML
e2e_sign "$EFI_IMAGE" "$E2E_WORK/signed.efi"
disk() {  # disk IMAGE KERNEL INITRD
  e2e_make_esp "$1" --loader "$E2E_WORK/signed.efi" \
    "$E2E_WORK/boot.xml=/EFI/BOOT/BOOTX64.xml" "$2=/boot/vmlinuz" "$3=/boot/initrd.gz" \
    "$E2E_WORK/extra.xz=/boot/extra.xz" "$E2E_WORK/conf.xz=/boot/conf.xz" \
    "$E2E_WORK/list.sig=/boot/list.sig"
}
disk "$E2E_WORK/kernel.img" "$E2E_WORK/vmlinuz.altered" "$E2E_WORK/initrd.gz"
disk "$E2E_WORK/ramdisk.img" "$LINUX_KERNEL" "$E2E_WORK/initrd.altered"
disk "$E2E_WORK/good.img" "$LINUX_KERNEL" "$E2E_WORK/initrd.gz"

# The report from "Runtime error:" to the blank line that ends it, without
# the location lines (their codes change with every edit of the source).
report() {
  e2e_since_mark | sed -n '/^Runtime error:/,/^$/p' | grep -vE '^\| (line|file|function|\$module):' |
    sed -n '1,/^|$/p;/^| error/p'
}

e2e_boot --secure-boot --disk "$E2E_WORK/kernel.img" --disk "$E2E_WORK/ramdisk.img" \
  --disk "$E2E_WORK/good.img"
e2e_expect "Starting x64 UEFI loader (v.1.1.236)..." 120
e2e_expect "Checking the rescue system..." 60
e2e_expect "Runtime error:" 60
sleep 1
expected=$'Runtime error:\nError 0x1480017: Failed to verify the file signatures.\n|\n| error 0x1480012: An incorrect kernel hash.'
[ "$(report | head -n 4)" = "$expected" ] || e2e_fail "altered kernel: report was
$(report)"
e2e_expect_absent "Loading protected mode kernel"
e2e_note "disk 1: the altered kernel was refused"

e2e_mark
e2e_expect "Starting x64 UEFI loader (v.1.1.236)..." 60
e2e_expect "Runtime error:" 60
sleep 1
expected=$'Runtime error:\nError 0x1480017: Failed to verify the file signatures.\n|\n| error 0x148001b: The RAM disk contains an unexpected ConfigurationFiles directory.'
[ "$(report | head -n 4)" = "$expected" ] || e2e_fail "altered RAM disk: report was
$(report)"
e2e_expect_absent "Loading protected mode kernel"
e2e_note "disk 2: the altered RAM disk was refused"

e2e_mark
e2e_expect "Starting x64 UEFI loader (v.1.1.236)..." 60
e2e_expect "Loading protected mode kernel..." 60
e2e_expect "GUEST: done" 120
e2e_wait_exit 30
e2e_expect_absent "Runtime error"
for line in "cmdline=[console=ttyS0 marker=secure]" \
  "ramdisk file /rd/gzip.txt: packed in the gzip archive" \
  "ramdisk file /rd/xz.txt: packed in the xz archive" \
  "ramdisk file /ConfigurationFiles/site.conf: unlisted but harmless"; do
  e2e_since_mark | grep -qF "GUEST: $line" || e2e_fail "the guest did not report '$line'"
done
e2e_note "disk 3: the listed kernel booted with an unlisted configuration RAM disk"
e2e_pass
