#!/usr/bin/env bash
# Installs every Debian package the build, the tests and the demo need.
# Idempotent: when everything is present it does nothing but check.
set -euo pipefail

PACKAGES=(
  build-essential cmake ninja-build g++ clang libclang-rt-14-dev llvm
  googletest libgtest-dev libbenchmark-dev
  libssl-dev zlib1g-dev openssl
  gnu-efi binutils
  qemu-system-x86 qemu-utils ovmf mtools dosfstools cpio gzip xz-utils
  busybox-static fdisk gdisk e2fsprogs xfsprogs ntfs-3g grub-common
  sbsigntool python3 dpkg-dev
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

SUDO=
[ "$(id -u)" -eq 0 ] || SUDO=sudo
echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
