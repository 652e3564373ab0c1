#!/usr/bin/env bash
# loader-tool kernel-info: the header fields of bzImage files made here
# with each rule of the loader's check broken in turn, and Debian's kernel
# when the end-to-end cache holds it.  Exit codes: 0 taken, 1 refused, 2 usage.
set -u
tool=${LOADER_TOOL:?}
tmp=$(mktemp -d); trap 'rm -rf "$tmp"' EXIT
fail=0
check() { if ! eval "$2"; then echo "FAIL: $1"; fail=1; fi; }

# make NAME [FIELD=VALUE...]: a bzImage with four setup sectors and a
# 12 KiB body; fields: sects, flag, magic, version, loadflags, jump, reloc,
# init, size (the file is cut to this many bytes), kv (version offset).
make() {
  local name=$1; shift
  python3 - "$tmp/$name" "$@" <<'PY'
import struct, sys
out, args = sys.argv[1], dict(a.split("=", 1) for a in sys.argv[2:])
g = lambda k, d: int(args.get(k, str(d)), 0)
sects = g("sects", 4)
setup = (sects + 1) * 512 if sects else 2560
body = 12288
k = bytearray(setup + body)
k[0x1F1] = sects
struct.pack_into("<H", k, 0x1FE, g("flag", 0xAA55))
k[0x200], k[0x201] = 0xEB, g("jump", 0x6A)
struct.pack_into("<IH", k, 0x202, g("magic", 0x53726448), g("version", 0x020F))
kv = g("kv", 0x300)
struct.pack_into("<H", k, 0x20E, kv)
k[0x211] = g("loadflags", 1)
struct.pack_into("<I", k, 0x230, 0x200000)
k[0x234] = g("reloc", 1)
struct.pack_into("<I", k, 0x260, g("init", 0x40000))
text = args.get("text", "6.1.0-test (builder@host) #1 SMP").encode()
if kv and 512 + kv + len(text) < len(k):
    k[512 + kv:512 + kv + len(text)] = text
open(out, "wb").write(bytes(k[:g("size", len(k))]))
PY
}

info() { "$tool" kernel-info "$tmp/$1" >"$tmp/out" 2>&1; echo $?; }

make good
rc=$(info good)
check "a valid image is taken" '[ $rc = 0 ] && grep -q "^accepted: *yes$" "$tmp/out"'
check "its protocol" 'grep -q "^version: *2.15 (0x020F)$" "$tmp/out"'
check "its setup" 'grep -q "^setup_sects: *4 (setup 2560 bytes)$" "$tmp/out"'
check "its body" 'grep -q "^protected-mode kernel: 12288 bytes$" "$tmp/out"'
check "its version string" 'grep -q "^kernel_version: *6.1.0-test (builder@host) #1 SMP$" "$tmp/out"'
check "no marker" 'grep -q "^own kernel marker: *no$" "$tmp/out"'

make own text="6.1.0-velarix-amd64"
rc=$(info own)
check "the own-kernel marker is seen" '[ $rc = 0 ] && grep -q "^own kernel marker: *yes$" "$tmp/out"'

corrupted="accepted: *no: The kernel is corrupted.$"
unsupported="accepted: *no: An unsupported kernel version.$"
while read -r name args expect; do
  make "$name" $args
  rc=$(info "$name")
  check "$name is refused" '[ $rc = 1 ]'
  check "$name: $expect" 'grep -q "${!expect}" "$tmp/out"'
done <<'CASES'
flag flag=0x55AA corrupted
magic magic=0x12345678 corrupted
high loadflags=0 unsupported
old version=0x0209 unsupported
short-header jump=0x61 corrupted
fixed reloc=0 unsupported
small-init init=0x1000 corrupted
far-version kv=0x900 corrupted
cut-in-setup size=2000 corrupted
tiny size=1024 corrupted
CASES

make minimal size=1025 sects=1 kv=0
rc=$(info minimal)
check "1025 bytes pass the size test" '[ $rc = 0 ]'
check "no version string" 'grep -q "^kernel_version: *(none)$" "$tmp/out"'

make zero-sects sects=0
rc=$(info zero-sects)
check "no setup sectors count as four" '[ $rc = 0 ] && grep -q "setup 2560 bytes" "$tmp/out"'

rc=$("$tool" kernel-info >/dev/null 2>&1; echo $?)
check "usage" '[ $rc = 2 ]'
rc=$("$tool" kernel-info "$tmp/none" >/dev/null 2>&1; echo $?)
check "a missing file" '[ $rc = 1 ]'

# Debian's kernel, if an end-to-end run has fetched it.
for dir in "${E2E_LINUX_CACHE:-}" /var/cache/rescue-loader-e2e "${SOURCE_DIR:-.}/build/e2e-cache"; do
  [ -n "$dir" ] || continue
  kernel=$(ls "$dir"/linux-image-*/boot/vmlinuz-* 2>/dev/null | head -n 1)
  [ -n "$kernel" ] || continue
  "$tool" kernel-info "$kernel" >"$tmp/out" 2>&1; rc=$?
  check "Debian's kernel is taken" '[ $rc = 0 ] && grep -q "^accepted: *yes$" "$tmp/out"'
  check "Debian's kernel is relocatable" 'grep -q "^relocatable_kernel: *1$" "$tmp/out"'
  check "Debian's kernel names its version" "grep -q \"^kernel_version: *$(basename "$kernel" | sed 's/^vmlinuz-//')\" \"\$tmp/out\""
  break
done

[ $fail = 0 ] && echo "PASS"
exit $fail
