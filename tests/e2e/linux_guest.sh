# A real Linux guest for the end-to-end tests and the benchmark: Debian's
# kernel (the package extracted with dpkg -x, never installed) and a
# busybox-static initramfs whose /init reports what the guest sees on the
# serial console, each line beginning with "GUEST: ", then powers off:
#
#   GUEST: init started
#   GUEST: cmdline=[<the kernel command line>]
#   GUEST: ramdisk file /rd/<name>: <contents>     (one per file of /rd and
#                                                  of /ConfigurationFiles)
#   GUEST: fb0 <driver> size=<w>,<h> bpp=<n> stride=<bytes>  (or "no framebuffer")
#   GUEST: efifb: mode is <w>x<h>x<bpp>, ...         (the driver's own line)
#   GUEST: done
#
# Source it after lib.sh.  The packages are fetched once into a cache
# outside the repository: /var/cache/rescue-loader-e2e when it can be
# written, else build/e2e-cache; E2E_LINUX_CACHE overrides both.
#
#   linux_guest_prepare           sets LINUX_KERNEL, LINUX_BUSYBOX
#   linux_guest_base_cpio OUT [NAME=TEXT...]   busybox, /init and /rd files (plain cpio)
#   linux_guest_files_cpio OUT NAME=TEXT...   an archive of /rd/NAME files
#   linux_guest_ramdisk_pair GZ XZ NAME=TEXT NAME=TEXT
#                                 the two RAM disks of a boot: the base archive
#                                 with the first file, gzip; an archive of the
#                                 second file, xz

linux_guest_cache_dir() {
  if [ -n "${E2E_LINUX_CACHE:-}" ]; then
    echo "$E2E_LINUX_CACHE"
  elif mkdir -p /var/cache/rescue-loader-e2e 2>/dev/null && [ -w /var/cache/rescue-loader-e2e ]; then
    echo /var/cache/rescue-loader-e2e
  else
    echo "$SOURCE_DIR/build/e2e-cache"
  fi
}

# Downloads and unpacks one package into DIR/NAME unless it is there.
linux_guest_fetch_package() {
  local dir=$1 package=$2
  [ -d "$dir/$package" ] && return 0
  local tmp
  tmp=$(mktemp -d "$dir/fetch.XXXXXX")
  (cd "$tmp" && apt-get download -q "$package" >/dev/null 2>"$tmp/err") || {
    cat "$tmp/err" >&2
    rm -rf "$tmp"
    return 1
  }
  dpkg -x "$tmp"/*.deb "$tmp/root" || { rm -rf "$tmp"; return 1; }
  mv "$tmp/root" "$dir/$package"
  rm -rf "$tmp"
}

linux_guest_prepare() {
  local dir
  dir=$(linux_guest_cache_dir)
  mkdir -p "$dir" || e2e_fail "cannot make the guest cache $dir"
  e2e_require apt-get apt-cache dpkg cpio gzip xz flock
  (
    flock 9
    if [ ! -f "$dir/kernel-package" ]; then
      # The kernel the metapackage stands for today.
      local package
      package=$(apt-cache depends linux-image-amd64 2>/dev/null |
        awk '/Depends: linux-image-[0-9]/ { print $2; exit }')
      [ -n "$package" ] || package=$(apt-cache search --names-only '^linux-image-6\.1\.0-[0-9]+-amd64$' |
        awk '{ print $1 }' | sort -V | tail -n 1)
      [ -n "$package" ] || exit 1
      linux_guest_fetch_package "$dir" "$package" || exit 1
      # The guest loads no modules: only the image is kept.
      rm -rf "${dir:?}/$package/lib" "${dir:?}/$package/usr"
      echo "$package" >"$dir/kernel-package"
    fi
    linux_guest_fetch_package "$dir" busybox-static || exit 1
  ) 9>"$dir/.lock" || e2e_fail "could not fetch the kernel or busybox-static into $dir"
  local package
  package=$(cat "$dir/kernel-package")
  LINUX_KERNEL=$(ls "$dir/$package"/boot/vmlinuz-* 2>/dev/null | head -n 1)
  LINUX_BUSYBOX=$dir/busybox-static/bin/busybox
  [ -f "$LINUX_KERNEL" ] || e2e_fail "no vmlinuz in $dir/$package"
  [ -x "$LINUX_BUSYBOX" ] || e2e_fail "no busybox in $dir/busybox-static"
  e2e_note "guest kernel: $(basename "$LINUX_KERNEL") ($(stat -c %s "$LINUX_KERNEL") bytes)"
}

# Packs the tree DIR as a newc archive to OUT, names without "./".
linux_guest_pack() {
  (cd "$1" && find . -mindepth 1 | sed 's|^\./||' | LC_ALL=C sort |
    cpio -o -H newc --owner=0:0 --quiet) >"$2"
}

linux_guest_base_cpio() {
  local out=$1 tree spec
  shift
  tree=$(mktemp -d "$E2E_WORK/base.XXXXXX")
  mkdir -p "$tree/bin" "$tree/proc" "$tree/sys" "$tree/dev" "$tree/rd"
  for spec in "$@"; do
    printf '%s\n' "${spec#*=}" >"$tree/rd/${spec%%=*}"
  done
  cp "$LINUX_BUSYBOX" "$tree/bin/busybox"
  cat >"$tree/init" <<'INIT'
#!/bin/busybox sh
/bin/busybox --install -s /bin
export PATH=/bin
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev 2>/dev/null
echo "GUEST: init started"
echo "GUEST: cmdline=[$(cat /proc/cmdline)]"
for f in /rd/* /ConfigurationFiles/*; do
  [ -f "$f" ] && echo "GUEST: ramdisk file $f: $(cat "$f")"
done
fb=/sys/class/graphics/fb0
if [ -e $fb ]; then
  echo "GUEST: fb0 $(cat $fb/name) size=$(cat $fb/virtual_size) bpp=$(cat $fb/bits_per_pixel) stride=$(cat $fb/stride)"
else
  echo "GUEST: no framebuffer"
fi
dmesg | grep 'efifb: mode is' | sed 's/^.*efifb:/GUEST: efifb:/'
echo "GUEST: done"
poweroff -f
INIT
  chmod 755 "$tree/init"
  linux_guest_pack "$tree" "$out"
  rm -rf "$tree"
}

linux_guest_files_cpio() {
  local out=$1 tree spec
  shift
  tree=$(mktemp -d "$E2E_WORK/files.XXXXXX")
  mkdir -p "$tree/rd"
  for spec in "$@"; do
    printf '%s\n' "${spec#*=}" >"$tree/rd/${spec%%=*}"
  done
  linux_guest_pack "$tree" "$out"
  rm -rf "$tree"
}

linux_guest_ramdisk_pair() {
  local gz=$1 xz=$2 tmp
  tmp=$(mktemp -d "$E2E_WORK/pair.XXXXXX")
  linux_guest_base_cpio "$tmp/base.cpio" "$3"
  gzip -9 -c "$tmp/base.cpio" >"$gz" || e2e_fail "gzip failed"
  linux_guest_files_cpio "$tmp/extra.cpio" "$4"
  # The kernel's own xz decoder knows CRC32 checks, not CRC64.
  xz --check=crc32 -c "$tmp/extra.cpio" >"$xz" || e2e_fail "xz failed"
  rm -rf "$tmp"
}
