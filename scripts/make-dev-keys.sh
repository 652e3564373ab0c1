#!/usr/bin/env bash
# make-dev-keys.sh OUTDIR
#
# Makes the development key set that a build embeds when no keys are given:
# OUTDIR/first.pem and OUTDIR/second.pem (RSA 2048) and OUTDIR/dsa.pem (DSA
# 1024 with a 160-bit subgroup), private keys in PEM.  These are for tests
# and trials only: anyone with the build tree can sign with them.
#
# Idempotent and safe to run from several builds at once: an existing set is
# kept, and a new one appears whole or not at all.
set -euo pipefail
out=${1:?usage: make-dev-keys.sh OUTDIR}

if [ -s "$out/first.pem" ] && [ -s "$out/second.pem" ] && [ -s "$out/dsa.pem" ]; then
  exit 0
fi

mkdir -p "$(dirname "$out")"
tmp=$(mktemp -d "$out.tmp.XXXXXX")
trap 'rm -rf "$tmp"' EXIT

openssl genrsa -out "$tmp/first.pem" 2048 2>/dev/null
openssl genrsa -out "$tmp/second.pem" 2048 2>/dev/null

# The loader's DSA key has a fixed encoded length, 442 bytes: the one that a
# 1024-bit key takes when neither the generator nor the public value needs a
# sign byte.  Most draws have it; draw again until one does.
for _ in $(seq 1 64); do
  openssl genpkey -genparam -algorithm DSA -pkeyopt dsa_paramgen_bits:1024 \
    -pkeyopt dsa_paramgen_q_bits:160 -out "$tmp/dsaparam.pem" 2>/dev/null
  openssl genpkey -paramfile "$tmp/dsaparam.pem" -out "$tmp/dsa.pem" 2>/dev/null
  if [ "$(openssl pkey -in "$tmp/dsa.pem" -pubout -outform DER | wc -c)" -eq 442 ]; then
    break
  fi
  rm -f "$tmp/dsa.pem"
done
[ -s "$tmp/dsa.pem" ] || { echo "make-dev-keys: no DSA key of 442 bytes" >&2; exit 1; }
rm -f "$tmp/dsaparam.pem"
chmod 600 "$tmp"/*.pem

# Whoever renames first wins; a loser's set is thrown away.
if ! mv -T "$tmp" "$out" 2>/dev/null; then
  [ -s "$out/first.pem" ] && [ -s "$out/second.pem" ] && [ -s "$out/dsa.pem" ] || {
    echo "make-dev-keys: $out exists but holds no complete key set" >&2; exit 1; }
fi
