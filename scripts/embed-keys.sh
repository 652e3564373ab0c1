#!/usr/bin/env bash
# embed-keys.sh FIRST SECOND DSA OUT.cpp
#
# Writes the C++ definitions of the loader's three public keys from key
# files in PEM (private or public keys, either works; only the public part
# is embedded).  FIRST and SECOND must be RSA 2048 keys, DSA a DSA key whose
# SubjectPublicKeyInfo is 442 bytes long.  The output is rewritten only when
# its content changes, so builds do not recompile for nothing.
set -euo pipefail
[ $# -eq 4 ] || { echo "usage: embed-keys.sh FIRST SECOND DSA OUT.cpp" >&2; exit 2; }
out=$4
tmp=$(mktemp -d); trap 'rm -rf "$tmp"' EXIT

# der NAME FILE KIND LENGTH: FILE's public key as DER into $tmp/NAME.der.
der() {
  local name=$1 file=$2 kind=$3 length=$4
  [ -r "$file" ] || { echo "embed-keys: cannot read key file '$file' ($name)" >&2; exit 1; }
  if ! openssl pkey -in "$file" -passin pass: -pubout -outform DER -out "$tmp/$name.der" 2>/dev/null &&
     ! openssl pkey -pubin -in "$file" -outform DER -out "$tmp/$name.der" 2>/dev/null; then
    echo "embed-keys: '$file' ($name) is neither a private nor a public key in PEM" \
         "(encrypted keys are not read: give the public key instead)" >&2
    exit 1
  fi
  local oid
  oid=$(openssl asn1parse -inform DER -in "$tmp/$name.der" | grep -m1 ':rsaEncryption\|:dsaEncryption' || true)
  case "$kind:$oid" in
    rsa:*rsaEncryption*|dsa:*dsaEncryption*) ;;
    *) echo "embed-keys: '$file' ($name) is not a $kind key" >&2; exit 1 ;;
  esac
  local got
  got=$(wc -c <"$tmp/$name.der")
  if [ "$got" -ne "$length" ]; then
    echo "embed-keys: the public key of '$file' ($name) is $got bytes; the loader takes" \
         "$length ($([ "$kind" = rsa ] && echo "RSA 2048 with exponent 65537" || echo "DSA 1024/160"))" >&2
    exit 1
  fi
}

der PublicKeyFirst "$1" rsa 294
der PublicKeySecond "$2" rsa 294
der PublicKeyDsa "$3" dsa 442

{
  echo "// Written by scripts/embed-keys.sh from the build's key files; not to be edited."
  echo "#include \"efi/signatures.h\""
  echo
  echo "namespace EfiLoader {"
  for name in PublicKeyFirst PublicKeySecond PublicKeyDsa; do
    echo
    echo "const uint8_t ${name}[$(wc -c <"$tmp/$name.der")] = {"
    od -An -v -tx1 "$tmp/$name.der" | sed -e 's/ \([0-9a-f][0-9a-f]\)/0x\1, /g' -e 's/, $/,/' -e 's/^/   /'
    echo "};"
  done
  echo
  echo "}  // namespace EfiLoader"
} >"$tmp/keys.cpp"

mkdir -p "$(dirname "$out")"
if ! cmp -s "$tmp/keys.cpp" "$out"; then
  mv "$tmp/keys.cpp" "$out.tmp$$" && mv "$out.tmp$$" "$out"
fi
