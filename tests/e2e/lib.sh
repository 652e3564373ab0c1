# End-to-end harness: boots the loader image in QEMU with the real OVMF
# firmware, reads its serial console and types into it.  Source it from a
# test script:
#
#   source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"
#   e2e_init
#   e2e_make_esp "$E2E_WORK/esp.img" "$E2E_WORK/loader.xml=/EFI/BOOT/BOOTX64.xml"
#   e2e_boot --disk "$E2E_WORK/esp.img"
#   e2e_expect "Starting x64 UEFI loader"
#   e2e_send '2'
#   e2e_expect_return
#   e2e_pass
#
# Safe under "set -e".  Everything ends by itself: each wait has a time limit, QEMU itself runs
# under a hard limit, and the exit trap kills it and removes the work folder
# (kept when E2E_KEEP=1).  QEMU never reboots (-no-reboot): a reset ends it.
#
# Environment: EFI_IMAGE (the loader; default $SOURCE_DIR/build/loader.efi),
# SOURCE_DIR, E2E_QEMU_LIMIT (seconds, default 300), E2E_MEMORY (MiB, 512),
# E2E_KEEP.

E2E_LIB_DIR=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
: "${SOURCE_DIR:=$(cd "$E2E_LIB_DIR/../.." && pwd)}"
: "${EFI_IMAGE:=$SOURCE_DIR/build/loader.efi}"
: "${E2E_QEMU_LIMIT:=300}"
: "${E2E_MEMORY:=512}"
: "${E2E_OVMF_DIR:=/usr/share/OVMF}"
: "${E2E_OVMF_KEY_DIR:=/usr/share/ovmf}"
export MTOOLS_SKIP_CHECK=1

E2E_WORK=
E2E_QEMU_PID=
E2E_KEYS_FD=
E2E_RAW=
E2E_START_NS=
E2E_MARK=0
E2E_RUN=0

e2e_now_ns() { date +%s%N; }

# Seconds since QEMU started, with one decimal.
e2e_elapsed() {
  local ns=$(($(e2e_now_ns) - E2E_START_NS))
  printf '%d.%d' $((ns / 1000000000)) $((ns / 100000000 % 10))
}

e2e_note() { echo "e2e: $*"; }

e2e_fail() {
  echo "FAIL: $*" >&2
  if [ -n "$E2E_RAW" ] && [ -f "$E2E_RAW" ]; then
    echo "---- console (last 60 lines) ----" >&2
    e2e_console | tail -n 60 >&2
    echo "---------------------------------" >&2
    if [ -s "$E2E_WORK/qemu.err" ]; then
      echo "---- qemu stderr ----" >&2
      cat "$E2E_WORK/qemu.err" >&2
    fi
  fi
  exit 1
}

e2e_pass() {
  e2e_note "PASS${1:+: $1}"
  exit 0
}

e2e_require() {
  local tool
  for tool in "$@"; do
    command -v "$tool" >/dev/null || e2e_fail "missing tool '$tool' (run scripts/setup.sh)"
  done
}

e2e_cleanup() {
  e2e_stop
  if [ -n "$E2E_WORK" ] && [ -d "$E2E_WORK" ]; then
    if [ "${E2E_KEEP:-0}" = 1 ]; then
      echo "e2e: work folder kept: $E2E_WORK" >&2
    else
      rm -rf "$E2E_WORK"
    fi
  fi
}

# Makes the work folder and checks that the image and the tools are there.
e2e_init() {
  e2e_require qemu-system-x86_64 mkfs.fat mmd mcopy timeout sed grep
  [ -f "$EFI_IMAGE" ] || e2e_fail "no loader image at $EFI_IMAGE (run 'make efi')"
  [ -f "$E2E_OVMF_DIR/OVMF_CODE_4M.fd" ] || e2e_fail "no OVMF in $E2E_OVMF_DIR (run scripts/setup.sh)"
  # Under the build tree when run by ctest: a sweep of /tmp by anything else
  # on the machine cannot pull the console log away from a running test.
  local base=${TMPDIR:-/tmp}
  if [ -n "${BUILD_DIR:-}" ]; then base=$BUILD_DIR/e2e-work; mkdir -p "$base"; fi
  E2E_WORK=$(mktemp -d "$base/e2e.XXXXXX")
  trap e2e_cleanup EXIT
  trap 'exit 130' INT TERM
}

# e2e_make_esp IMAGE [SOURCE=/ESP/PATH]...
# A FAT32 EFI system partition (a bare file system, no partition table, as
# firmware accepts on a removable disk) holding the loader as the default
# boot file \EFI\BOOT\BOOTX64.EFI, plus the given files.  --loader FILE puts
# another image there; --no-loader leaves it out; --size MIB (default 64).
e2e_make_esp() {
  local image=$1 loader=$EFI_IMAGE size=64
  shift
  while [ $# -gt 0 ]; do
    case $1 in
      --loader) loader=$2; shift 2 ;;
      --no-loader) loader=; shift ;;
      --size) size=$2; shift 2 ;;
      *) break ;;
    esac
  done
  rm -f "$image"
  mkfs.fat -C -F 32 -n ESP "$image" $((size * 1024)) >/dev/null || e2e_fail "mkfs.fat failed"
  mmd -i "$image" ::/EFI ::/EFI/BOOT </dev/null || e2e_fail "mmd failed"
  if [ -n "$loader" ]; then
    mcopy -i "$image" "$loader" ::/EFI/BOOT/BOOTX64.EFI </dev/null || e2e_fail "mcopy of the loader failed"
  fi
  local spec source dest dir
  for spec in "$@"; do
    source=${spec%%=*}
    dest=${spec#*=}
    dest=${dest//\\//}
    # Parent folders first.
    dir=$(dirname "$dest")
    local path= part
    IFS=/ read -ra parts <<<"${dir#/}"
    for part in "${parts[@]}"; do
      [ -n "$part" ] || continue
      path=$path/$part
      mdir -i "$image" "::$path" >/dev/null 2>&1 </dev/null ||
        mmd -i "$image" "::$path" </dev/null || e2e_fail "mmd of $path failed"
    done
    # -D o: replace what is there, never ask (mtools asks on a terminal).
    if [ -d "$source" ]; then
      mcopy -s -D o -i "$image" "$source" "::$dest" </dev/null || e2e_fail "mcopy of $source failed"
    else
      mcopy -D o -i "$image" "$source" "::$dest" </dev/null || e2e_fail "mcopy of $source failed"
    fi
  done
}

# e2e_sign IN OUT: signs an EFI image with the test key that the Secure
# Boot firmware variant trusts.
e2e_sign() {
  e2e_require sbsign openssl
  local key=$E2E_WORK/snakeoil.key
  if [ ! -f "$key" ]; then
    openssl rsa -passin pass:snakeoil -in "$E2E_OVMF_KEY_DIR/PkKek-1-snakeoil.key" -out "$key" 2>/dev/null ||
      e2e_fail "cannot decrypt the test key"
  fi
  sbsign --key "$key" --cert "$E2E_OVMF_KEY_DIR/PkKek-1-snakeoil.pem" --output "$2" "$1" >/dev/null 2>&1 ||
    e2e_fail "sbsign failed"
}

# e2e_boot [--secure-boot] [--disk IMAGE]... [--no-vga] [-- QEMU ARGS...]
# Starts QEMU in the background with a fresh copy of the firmware's variable
# store.  The first --disk is the boot disk.  The serial console is QEMU's
# standard input and output: what the loader prints goes to the raw log,
# what e2e_send writes arrives as key strokes.
e2e_boot() {
  local secure=0 vga=1 disks=() extra=()
  while [ $# -gt 0 ]; do
    case $1 in
      --secure-boot) secure=1; shift ;;
      --disk) disks+=("$2"); shift 2 ;;
      --no-vga) vga=0; shift ;;
      --) shift; extra=("$@"); break ;;
      *) e2e_fail "e2e_boot: unknown option $1" ;;
    esac
  done
  [ -z "$E2E_QEMU_PID" ] || e2e_fail "e2e_boot: QEMU is already running"
  E2E_RUN=$((E2E_RUN + 1))
  local code vars machine args=()
  if [ $secure = 1 ]; then
    code=$E2E_OVMF_DIR/OVMF_CODE_4M.snakeoil.fd
    vars=$E2E_OVMF_DIR/OVMF_VARS_4M.snakeoil.fd
    machine=q35,smm=on,accel=tcg
    args+=(-global driver=cfi.pflash01,property=secure,value=on)
  else
    code=$E2E_OVMF_DIR/OVMF_CODE_4M.fd
    vars=$E2E_OVMF_DIR/OVMF_VARS_4M.fd
    machine=q35,accel=tcg
  fi
  # A store left over from another run may hold boot entries that send the
  # firmware elsewhere.
  cp "$vars" "$E2E_WORK/vars.$E2E_RUN.fd"
  args+=(-machine "$machine" -m "$E2E_MEMORY" -smp 1
    -drive "if=pflash,format=raw,unit=0,readonly=on,file=$code"
    -drive "if=pflash,format=raw,unit=1,file=$E2E_WORK/vars.$E2E_RUN.fd"
    -nodefaults -display none -monitor none -serial stdio -net none -no-reboot)
  if [ $vga = 1 ]; then args+=(-vga std); fi
  local disk
  for disk in "${disks[@]}"; do
    args+=(-drive "format=raw,file=$disk")
  done
  args+=("${extra[@]}")

  E2E_RAW=$E2E_WORK/console.$E2E_RUN.raw
  local keys=$E2E_WORK/keys.$E2E_RUN
  rm -f "$keys"
  mkfifo "$keys"
  # Held open for reading and writing: opening never blocks, and QEMU never
  # sees the end of its input between two e2e_send calls.
  exec {E2E_KEYS_FD}<>"$keys"
  E2E_MARK=0
  E2E_START_NS=$(e2e_now_ns)
  timeout -s KILL "$E2E_QEMU_LIMIT" qemu-system-x86_64 "${args[@]}" \
    <"$keys" >"$E2E_RAW" 2>"$E2E_WORK/qemu.err" &
  E2E_QEMU_PID=$!
}

e2e_running() { [ -n "$E2E_QEMU_PID" ] && kill -0 "$E2E_QEMU_PID" 2>/dev/null; }

# Ends QEMU (if still running) and closes the key channel.
e2e_stop() {
  if [ -n "$E2E_QEMU_PID" ]; then
    kill "$E2E_QEMU_PID" 2>/dev/null || true
    local i
    for i in $(seq 50); do
      e2e_running || break
      sleep 0.1
    done
    kill -KILL "$E2E_QEMU_PID" 2>/dev/null || true
    wait "$E2E_QEMU_PID" 2>/dev/null || true
    E2E_QEMU_PID=
  fi
  if [ -n "$E2E_KEYS_FD" ]; then
    exec {E2E_KEYS_FD}>&-
    E2E_KEYS_FD=
  fi
}

# The console as text: ANSI sequences and carriage returns removed; cursor
# positioning becomes a line break, so that text drawn at a position does
# not run into what stood before it.
E2E_STRIP_SED=(-e 's/\x1b\[[0-9;]*[Hf]/\n/g' -e 's/\x1b\[[0-9;?=]*[A-Za-z]//g'
  -e 's/\x1b[()][A-Z0-9]//g' -e 's/\x1b[=>c]//g' -e 's/\r//g')
e2e_strip() { sed "${E2E_STRIP_SED[@]}"; }
# The same for a live view: line by line as it comes, without runs of
# empty lines.
e2e_strip_stream() { sed -u "${E2E_STRIP_SED[@]}" | cat -s; }

e2e_console() { [ -f "$E2E_RAW" ] && e2e_strip <"$E2E_RAW"; }

# Remembers how far the console has got: later waits look only at what
# comes after (for a text that appears more than once).
e2e_mark() { E2E_MARK=$(e2e_console | wc -c); }

e2e_since_mark() { e2e_console | tail -c +$((E2E_MARK + 1)); }

# e2e_wait_for TEXT [SECONDS]: returns 0 once TEXT (a fixed string) is on
# the console after the mark, 1 on time-out or when QEMU ended without it.
e2e_wait_for() {
  local text=$1 limit=${2:-60}
  local deadline=$(($(e2e_now_ns) + limit * 1000000000))
  while :; do
    if e2e_since_mark | grep -qF -- "$text"; then
      e2e_note "seen '$text' after $(e2e_elapsed) s"
      return 0
    fi
    if ! e2e_running; then
      # Output may have landed between the check and the exit.
      e2e_since_mark | grep -qF -- "$text" && return 0
      return 1
    fi
    [ "$(e2e_now_ns)" -lt "$deadline" ] || return 1
    sleep 0.1
  done
}

# e2e_expect TEXT [SECONDS]: as e2e_wait_for, but the test fails without it.
e2e_expect() {
  e2e_wait_for "$@" && return 0
  if e2e_running; then
    e2e_fail "'$1' did not appear within ${2:-60} s"
  else
    e2e_fail "QEMU ended before '$1' appeared"
  fi
}

# e2e_expect_absent TEXT: the console (after the mark) does not hold TEXT.
e2e_expect_absent() {
  if e2e_since_mark | grep -qF -- "$1"; then e2e_fail "unexpected '$1' on the console"; fi
}

# e2e_send KEYS: types KEYS, with printf escapes: '\r' Enter, '\x1b' Esc,
# '\x1b[A' Up; a backslash itself is '\\' (a lone '\E' would be Esc).
# Names for the usual keys follow.
e2e_send() {
  [ -n "$E2E_KEYS_FD" ] || e2e_fail "e2e_send: QEMU is not running"
  printf '%b' "$1" >&"$E2E_KEYS_FD"
}

E2E_KEY_ENTER='\r'
E2E_KEY_ESC='\x1b'
E2E_KEY_UP='\x1b[A'
E2E_KEY_DOWN='\x1b[B'
E2E_KEY_RIGHT='\x1b[C'
E2E_KEY_LEFT='\x1b[D'

# e2e_expect_return [SECONDS]: the loader went back to the firmware with
# EFI_LOAD_ERROR; the firmware says so on its console before it moves on to
# its next boot option.  QEMU is stopped then.
e2e_expect_return() {
  e2e_expect "Load Error" "${1:-60}"
  e2e_since_mark | grep -qE 'failed to start Boot[0-9A-F]{4} .*: Load Error' ||
    e2e_fail "the firmware reported another failure than EFI_LOAD_ERROR"
  e2e_stop
}

# e2e_wait_exit [SECONDS]: QEMU ends by itself (power-off or reset).
e2e_wait_exit() {
  local limit=${1:-60}
  local deadline=$(($(e2e_now_ns) + limit * 1000000000))
  while e2e_running; do
    [ "$(e2e_now_ns)" -lt "$deadline" ] || e2e_fail "QEMU still running after $limit s"
    sleep 0.1
  done
  wait "$E2E_QEMU_PID" 2>/dev/null || true
  E2E_QEMU_PID=
  e2e_note "QEMU ended after $(e2e_elapsed) s"
}
