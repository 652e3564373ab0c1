#!/usr/bin/env bash
# Usage: scripts/fetch-source.sh NAME DESTDIR
#
# Unpacks Debian's source package NAME into DESTDIR (patches applied), for
# the C libraries that the host and firmware builds compile themselves.
# Idempotent: a DESTDIR that holds a finished unpack is left alone.  The
# unpacked tree is also kept in a cache outside the work tree
# (RESCUE_LOADER_SRC_CACHE, default /var/cache/rescue-loader-src) when that
# is writable, so that a clean build or a fresh clone needs no download.
#
# The system's apt configuration is not touched: a private deb-src list,
# made from the system's own deb entries, lives in a scratch directory.
# When the newest version cannot be downloaded (a security update whose
# files are gone, say), older versions are tried in turn.
set -euo pipefail

if [ $# -ne 2 ]; then
  echo "usage: $0 NAME DESTDIR" >&2
  exit 2
fi
name=$1
dest=$2
stamp=.fetched

[ -f "$dest/$stamp" ] && exit 0

mkdir -p "$(dirname "$dest")"
# Two builds configured at once must not unpack over each other.
exec 9>"$dest.lock"
flock 9
[ -f "$dest/$stamp" ] && exit 0

cache_root=${RESCUE_LOADER_SRC_CACHE:-/var/cache/rescue-loader-src}
cache=
if mkdir -p "$cache_root" 2>/dev/null && [ -w "$cache_root" ]; then
  cache=$cache_root/$name
fi

install_from() {  # copies a finished unpack to DESTDIR
  local from=$1 tmp
  tmp=$(mktemp -d "$dest.new.XXXXXX")
  cp -a "$from"/. "$tmp"/
  rm -rf "$dest"
  mv "$tmp" "$dest"
}

if [ -n "$cache" ] && [ -f "$cache/$stamp" ]; then
  install_from "$cache"
  echo "fetch-source: $name $(cat "$dest/$stamp") (from $cache_root)"
  exit 0
fi

for tool in apt-get apt-cache dpkg-source; do
  command -v "$tool" >/dev/null || { echo "fetch-source: $tool is missing (run scripts/setup.sh)" >&2; exit 1; }
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/parts" "$work/lists/partial" "$work/cache/archives/partial" "$work/dl"

# deb-src twins of the system's deb entries, in both list formats.
for f in /etc/apt/sources.list.d/*.sources; do
  [ -f "$f" ] || continue
  sed -e 's/^Types:.*\bdeb\b.*/Types: deb-src/' "$f" >"$work/parts/$(basename "$f")"
done
for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
  [ -f "$f" ] || continue
  grep -E '^[[:space:]]*deb[[:space:]]' "$f" | sed -e 's/^[[:space:]]*deb[[:space:]]/deb-src /' \
    >>"$work/parts/system-src.list" || true
done
if ! grep -qs . "$work"/parts/*; then
  cat >"$work/parts/debian-src.list" <<'EOF'
deb-src http://deb.debian.org/debian bookworm main
deb-src http://deb.debian.org/debian-security bookworm-security main
EOF
fi

apt_opts=(-o Dir::Etc::SourceList=/dev/null -o "Dir::Etc::SourceParts=$work/parts"
          -o "Dir::State::Lists=$work/lists" -o "Dir::Cache=$work/cache"
          -o APT::Sandbox::User=root -o Acquire::Retries=2)

apt-get "${apt_opts[@]}" -qq update >"$work/update.log" 2>&1 || {
  cat "$work/update.log" >&2; echo "fetch-source: cannot read the source lists" >&2; exit 1; }

mapfile -t versions < <(apt-cache "${apt_opts[@]}" showsrc "$name" 2>/dev/null |
                        awk '/^Package: /{p=$2} /^Version: /{if (p == "'"$name"'") print $2}' |
                        sort -u | sort -rV)
if [ ${#versions[@]} -eq 0 ]; then
  echo "fetch-source: no source package called $name" >&2
  exit 1
fi

got=
for v in "${versions[@]}"; do
  rm -rf "$work/dl" && mkdir -p "$work/dl"
  if (cd "$work/dl" && apt-get "${apt_opts[@]}" -qq source --download-only "$name=$v" \
        >"$work/source.log" 2>&1); then
    got=$v
    break
  fi
  echo "fetch-source: $name $v could not be downloaded, trying an older version" >&2
done
if [ -z "$got" ]; then
  cat "$work/source.log" >&2
  echo "fetch-source: no version of $name could be downloaded" >&2
  exit 1
fi

dsc=$(ls "$work"/dl/*.dsc | head -n 1)
dpkg-source --no-check -x "$dsc" "$work/src" >"$work/unpack.log" 2>&1 || {
  cat "$work/unpack.log" >&2; exit 1; }
echo "$got" >"$work/src/$stamp"

if [ -n "$cache" ]; then
  rm -rf "$cache.new" && cp -a "$work/src" "$cache.new" && rm -rf "$cache" && mv "$cache.new" "$cache" || true
fi
install_from "$work/src"
echo "fetch-source: $name $got"
