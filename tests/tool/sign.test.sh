#!/usr/bin/env bash
# loader-tool sign / verify: round trips with the build's development keys,
# lists that openssl itself checks, and refusals with the loader's reports
# and exit codes (0 all listed, 1 refused, 2 usage).
set -u
tool=${LOADER_TOOL:?}
keys=${LOADER_DEV_KEY_DIR:?}
tmp=$(mktemp -d); trap 'rm -rf "$tmp"' EXIT
fail=0
check() { if ! eval "$2"; then echo "FAIL: $1"; fail=1; fi; }

head -c 100000 /dev/urandom >"$tmp/kernel"
printf 'ramdisk one\n' >"$tmp/initrd one.img"
: >"$tmp/empty"
files=("$tmp/kernel" "$tmp/initrd one.img" "$tmp/empty")

# Each built-in key, as the build made it and in the traditional PEM form.
for k in first second dsa; do
  "$tool" sign --key "$keys/$k.pem" "${files[@]}" >"$tmp/$k.sig" 2>"$tmp/err"; rc=$?
  check "$k: sign exits 0" '[ $rc -eq 0 ]'
  check "$k: no note for a built-in key" '[ ! -s "$tmp/err" ]'
  check "$k: digests are sha256sum's" \
    '[ "$(sed -n 1,3p "$tmp/$k.sig")" = "$(sha256sum "${files[@]}" | cut -d" " -f1)" ]'
  check "$k: marker on the fourth line" '[ "$(sed -n 4p "$tmp/$k.sig")" = "BeginSignature:" ]'
  out=$("$tool" verify "$tmp/$k.sig" "${files[@]}"); rc=$?
  check "$k: verify exits 0" '[ $rc -eq 0 ]'
  check "$k: every file OK" '[ "$(grep -c ": OK$" <<<"$out")" -eq 3 ]'
  check "$k: signature reported valid" 'grep -q "signature valid, 3 digests" <<<"$out"'

  # openssl agrees that the signature covers the text before the marker.
  head -n 3 "$tmp/$k.sig" >"$tmp/signed"
  sed -n 5p "$tmp/$k.sig" |
    python3 -c 'import sys; sys.stdout.buffer.write(bytes.fromhex(sys.stdin.read().strip()))' >"$tmp/sig.bin"
  md=-sha256; [ $k = dsa ] && md=-sha1
  openssl pkey -in "$keys/$k.pem" -pubout -out "$tmp/pub.pem" 2>/dev/null
  check "$k: openssl verifies the signature" \
    'openssl dgst $md -verify "$tmp/pub.pem" -signature "$tmp/sig.bin" "$tmp/signed" >/dev/null'
done

openssl pkey -in "$keys/second.pem" -traditional -out "$tmp/second-trad.pem" 2>/dev/null
"$tool" sign --key "$tmp/second-trad.pem" "$tmp/kernel" >"$tmp/trad.sig"; rc=$?
check "traditional PEM key signs" '[ $rc -eq 0 ] && "$tool" verify "$tmp/trad.sig" "$tmp/kernel" >/dev/null'

# A changed file is named; the others still pass; the exit status tells.
cp "$tmp/kernel" "$tmp/kernel2"
printf 'X' | dd of="$tmp/kernel2" bs=1 seek=5000 conv=notrunc 2>/dev/null
out=$("$tool" verify "$tmp/first.sig" "$tmp/kernel2" "$tmp/initrd one.img"); rc=$?
check "changed file: exit 1" '[ $rc -eq 1 ]'
check "changed file: FAILED" 'grep -q "kernel2: FAILED$" <<<"$out"'
check "changed file: the other one OK" 'grep -q "initrd one.img: OK$" <<<"$out"'
out=$("$tool" verify "$tmp/first.sig" "$tmp/missing" 2>"$tmp/err"); rc=$?
check "missing file: exit 1" '[ $rc -eq 1 ] && grep -q "missing: ERROR" <<<"$out"'
check "missing file: reported" 'grep -q "Error 0x40011" "$tmp/err"'

# A changed list is refused as a whole, with the loader's report.
sed '1y/0123456789abcdef/123456789abcdef0/' "$tmp/dsa.sig" >"$tmp/changed.sig"
out=$("$tool" verify "$tmp/changed.sig" "${files[@]}" 2>&1); rc=$?
check "changed list: exit 1" '[ $rc -eq 1 ]'
check "changed list: invalid signature" 'grep -q "Error 0x1480011: An invalid file signature." <<<"$out"'
check "changed list: no file judged" '! grep -q ": OK$" <<<"$out"'
sed 's/\r*$/\r/' "$tmp/first.sig" >"$tmp/crlf.sig"
"$tool" verify "$tmp/crlf.sig" "$tmp/kernel" >/dev/null 2>&1; rc=$?
check "CR LF line ends break the signature" '[ $rc -eq 1 ]'

# Lists that are not lists.
head -n 3 "$tmp/first.sig" >"$tmp/nomarker.sig"
out=$("$tool" verify "$tmp/nomarker.sig" "$tmp/kernel" 2>&1); rc=$?
check "no marker: data incorrect" '[ $rc -eq 1 ] && grep -q "Error 0x1480014: Data in the signature file is incorrect." <<<"$out"'
{ echo "zz$(sed -n 1p "$tmp/first.sig")"; sed -n '2,$p' "$tmp/first.sig"; } >"$tmp/badhex.sig"
out=$("$tool" verify "$tmp/badhex.sig" 2>&1); rc=$?
check "bad hex: data incorrect" '[ $rc -eq 1 ] && grep -q "Error 0x1480014" <<<"$out" && grep -q "function: ConvertToBinary" <<<"$out"'
head -c 400 "$tmp/first.sig" >"$tmp/truncated.sig"
out=$("$tool" verify "$tmp/truncated.sig" 2>&1); rc=$?
check "truncated list: invalid signature" '[ $rc -eq 1 ] && grep -q "Error 0x1480011" <<<"$out"'

# A key the build does not have: the list is written, with a note, and the
# loader's code refuses it.  So do an RSA key of another size and a key of
# another kind.
openssl genrsa -out "$tmp/other.pem" 2048 2>/dev/null
"$tool" sign --key "$tmp/other.pem" "$tmp/kernel" >"$tmp/other.sig" 2>"$tmp/err"; rc=$?
check "foreign key: sign exits 0" '[ $rc -eq 0 ] && grep -q "BeginSignature:" "$tmp/other.sig"'
check "foreign key: note given" 'grep -q "not one of the keys built into" "$tmp/err"'
out=$("$tool" verify "$tmp/other.sig" "$tmp/kernel" 2>&1); rc=$?
check "foreign key: refused" '[ $rc -eq 1 ] && grep -q "Error 0x1480011" <<<"$out"'
openssl genrsa -out "$tmp/small.pem" 1024 2>/dev/null
"$tool" sign --key "$tmp/small.pem" "$tmp/kernel" >"$tmp/small.sig" 2>/dev/null
"$tool" verify "$tmp/small.sig" "$tmp/kernel" >/dev/null 2>&1; rc=$?
check "RSA 1024 list refused" '[ $rc -eq 1 ]'
openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$tmp/ec.pem" 2>/dev/null
"$tool" sign --key "$tmp/ec.pem" "$tmp/kernel" >/dev/null 2>"$tmp/err"; rc=$?
check "EC key: refused by sign" '[ $rc -eq 1 ] && grep -q "neither an RSA nor a DSA key" "$tmp/err"'
openssl pkey -in "$keys/first.pem" -pubout -out "$tmp/public.pem" 2>/dev/null
"$tool" sign --key "$tmp/public.pem" "$tmp/kernel" >/dev/null 2>&1; rc=$?
check "public key: cannot sign" '[ $rc -eq 1 ]'
openssl pkey -in "$keys/first.pem" -aes128 -passout pass:secret -out "$tmp/locked.pem" 2>/dev/null
"$tool" sign --key "$tmp/locked.pem" "$tmp/kernel" >/dev/null 2>&1 </dev/null; rc=$?
check "encrypted key: refused without a prompt" '[ $rc -eq 1 ]'

# Usage.
"$tool" sign "$tmp/kernel" >/dev/null 2>&1; rc=$?
check "sign without --key: exit 2" '[ $rc -eq 2 ]'
"$tool" sign --key "$keys/first.pem" >/dev/null 2>&1; rc=$?
check "sign without files: exit 2" '[ $rc -eq 2 ]'
"$tool" verify >/dev/null 2>&1; rc=$?
check "verify without a list: exit 2" '[ $rc -eq 2 ]'
"$tool" sign --key "$tmp/nokey.pem" "$tmp/kernel" >/dev/null 2>&1; rc=$?
check "missing key file: exit 1" '[ $rc -eq 1 ]'

[ $fail -eq 0 ] && echo "sign: all cases passed"
exit $fail
