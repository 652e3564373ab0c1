#!/usr/bin/env bash
# Build-time checks of code that runs in the firmware.
#
#   check-image.sh redzone FILE...   no code uses the area below the stack
#                                    pointer (firmware interrupt handlers
#                                    may overwrite it at any moment)
#   check-image.sh relocs FILE       the linked image needs nothing but
#                                    R_X86_64_RELATIVE fix-ups, all in .rela
#                                    (the only kind and place the entry code
#                                    applies; others would be left undone
#                                    without a word)
set -euo pipefail

redzone() {
  local file status=0
  for file in "$@"; do
    # Per function: any access at a negative offset from %rsp; and, once
    # the function made %rbp its frame pointer, an access below %rbp deeper
    # than what it has reserved with pushes and "sub $N,%rsp" since.
    objdump -d --no-show-raw-insn "$file" | awk -v file="$file" '
      function hex(s) { return strtonum("0x" s) }
      /^[0-9a-f]+ <.*>:$/ { fn = $2; framed = 0; reserved = 0; next }
      /^ *[0-9a-f]+:\t/ {
        line = $0
        sub(/^ *[0-9a-f]+:\t/, "", line)
        split(line, parts, /[ \t]+/)
        op = parts[1]
        if (op ~ /^(lea|nop)/) next
        if (line ~ /^mov +%rsp,%rbp$/) { framed = 1; reserved = 0; next }
        if (framed && op ~ /^push/) reserved += 8
        if (framed && match(line, /^sub +\$0x([0-9a-f]+),%rsp$/, m)) reserved += hex(m[1])
        if (framed && line ~ /^sub +%[a-z0-9]+,%rsp$/) reserved = 2^62
        if (match(line, /-0x([0-9a-f]+)\(%rsp[,)]/, m)) {
          printf "%s: %s: below %%rsp: %s\n", file, fn, line
          bad = 1
        } else if (framed && match(line, /-0x([0-9a-f]+)\(%rbp[,)]/, m) && hex(m[1]) > reserved) {
          printf "%s: %s: below the reserved frame: %s\n", file, fn, line
          bad = 1
        }
      }
      END { exit bad }' || status=1
  done
  return $status
}

relocs() {
  local file=$1 bad sections
  bad=$(readelf -rW "$file" | awk '$3 ~ /^R_X86_64_/ && $3 != "R_X86_64_RELATIVE"')
  if [ -n "$bad" ]; then
    echo "$file: relocations the entry code does not apply:" >&2
    echo "$bad" >&2
    return 1
  fi
  sections=$(readelf -rW "$file" | sed -n "s/^Relocation section '\([^']*\)'.*/\1/p" | sort -u | tr '\n' ' ')
  if [ -n "$sections" ] && [ "$sections" != ".rela " ]; then
    echo "$file: relocations outside .rela: $sections" >&2
    return 1
  fi
}

mode=$1
shift
case $mode in
  redzone) redzone "$@" ;;
  relocs) relocs "$@" ;;
  *) echo "usage: $0 redzone FILE... | relocs FILE" >&2; exit 2 ;;
esac
