#!/usr/bin/env python3
"""Build-time checks of code that runs in the firmware.

  check_image.py redzone FILE...  no code uses the area below the stack
                                  pointer: firmware interrupt handlers may
                                  overwrite it at any moment.
  check_image.py pick FILE...     objects taken from a prebuilt library:
                                  no red zone, and only PC-relative
                                  references, which the linker resolves and
                                  which never become run-time fix-ups.
  check_image.py image FILE       the linked image needs nothing but
                                  R_X86_64_RELATIVE fix-ups, all in .rela:
                                  the only kind and place the entry code
                                  applies; others would be left undone
                                  without a word.  And every section the
                                  program needs at run time is one that
                                  goes into the PE file (objcopy drops the
                                  others silently), with no thread-local
                                  storage, which nothing would set up.
"""
import re
import subprocess
import sys

FUNCTION = re.compile(r"^[0-9a-f]+ <(.*)>:$")
INSTRUCTION = re.compile(r"^\s*[0-9a-f]+:\t(\S+)\s*(.*)$")
BELOW_RSP = re.compile(r"-0x([0-9a-f]+)\(%rsp[,)]")
BELOW_RBP = re.compile(r"-0x([0-9a-f]+)\(%rbp[,)]")
SUB_RSP = re.compile(r"^\$0x([0-9a-f]+),%rsp$")


def redzone_findings(path):
    """Per function: any access at a negative offset from %rsp; and, once the
    function made %rbp its frame pointer, any access below %rbp deeper than
    what it has reserved since with pushes and subtractions from %rsp."""
    disassembly = subprocess.run(
        ["objdump", "-d", "--no-show-raw-insn", path],
        check=True, capture_output=True, text=True).stdout
    function, framed, reserved = "?", False, 0
    for line in disassembly.splitlines():
        m = FUNCTION.match(line)
        if m:
            function, framed, reserved = m.group(1), False, 0
            continue
        m = INSTRUCTION.match(line)
        if not m:
            continue
        op, operands = m.group(1), m.group(2).split("#")[0].strip()
        if op.startswith(("lea", "nop")):
            continue
        if op.startswith("mov") and operands == "%rsp,%rbp":
            framed, reserved = True, 0
            continue
        if framed and op.startswith("push"):
            reserved += 8
        if framed and op.startswith("sub") and operands.endswith(",%rsp"):
            s = SUB_RSP.match(operands)
            reserved += int(s.group(1), 16) if s else 1 << 62
        if BELOW_RSP.search(operands):
            yield f"{path}: {function}: below %rsp: {op} {operands}"
        elif framed:
            b = BELOW_RBP.search(operands)
            if b and int(b.group(1), 16) > reserved:
                yield f"{path}: {function}: below the reserved frame: {op} {operands}"


def check_redzone(paths):
    findings = [f for path in paths for f in redzone_findings(path)]
    for f in findings:
        print(f, file=sys.stderr)
    return not findings


# What the PE conversion copies, and what may be left behind because only
# the ELF tools read it (symbol hashing, names, tracing probes' anchor).
COPIED = {".text", ".data", ".eh_frame", ".reloc", ".dynamic", ".dynsym", ".rela", ".sdata"}
NOT_NEEDED = {".hash", ".gnu.hash", ".dynstr", ".stapsdt.base", ".note.gnu.build-id"}
SECTION = re.compile(r"^\s*\[\s*\d+\]\s+(\S+)\s+\S+\s+[0-9a-f]+\s+[0-9a-f]+\s+[0-9a-f]+\s+[0-9a-f]+\s+([A-Za-z]*)")


def check_sections(path):
    listing = subprocess.run(["readelf", "-SW", path],
                             check=True, capture_output=True, text=True).stdout
    ok = True
    for line in listing.splitlines():
        m = SECTION.match(line)
        if not m:
            continue
        name, flags = m.group(1), m.group(2)
        if "T" in flags:
            print(f"{path}: thread-local section {name}", file=sys.stderr)
            ok = False
        elif "A" in flags and name not in COPIED | NOT_NEEDED:
            print(f"{path}: section {name} would be left out of the image", file=sys.stderr)
            ok = False
    return ok


def check_image(path):
    listing = subprocess.run(["readelf", "-rW", path],
                             check=True, capture_output=True, text=True).stdout
    ok = True
    sections = set(re.findall(r"^Relocation section '([^']*)'", listing, re.M))
    if sections - {".rela"}:
        print(f"{path}: relocations outside .rela: {sorted(sections)}", file=sys.stderr)
        ok = False
    for line in listing.splitlines():
        fields = line.split()
        if len(fields) > 2 and fields[2].startswith("R_X86_64_") and fields[2] != "R_X86_64_RELATIVE":
            print(f"{path}: relocation the entry code does not apply: {line.strip()}", file=sys.stderr)
            ok = False
    return check_sections(path) and ok


PC_RELATIVE = {"R_X86_64_PC32", "R_X86_64_PLT32", "R_X86_64_PC64"}


def check_pick(paths):
    ok = check_redzone(paths)
    for path in paths:
        listing = subprocess.run(["readelf", "-rW", path],
                                 check=True, capture_output=True, text=True).stdout
        kinds = {f[2] for f in (line.split() for line in listing.splitlines())
                 if len(f) > 2 and f[2].startswith("R_X86_64_")}
        if kinds - PC_RELATIVE:
            print(f"{path}: relocation kinds {sorted(kinds - PC_RELATIVE)}", file=sys.stderr)
            ok = False
    return ok


def main(argv):
    if len(argv) >= 3 and argv[1] == "redzone":
        return 0 if check_redzone(argv[2:]) else 1
    if len(argv) >= 3 and argv[1] == "pick":
        return 0 if check_pick(argv[2:]) else 1
    if len(argv) == 3 and argv[1] == "image":
        return 0 if check_image(argv[2]) else 1
    print(__doc__, file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv))
