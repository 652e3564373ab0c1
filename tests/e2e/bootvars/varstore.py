#!/usr/bin/env python3
"""Lists the variables of the firmware's global GUID that stand in an OVMF
variable store file (the pflash image after a run): one line each, the
name, a blank and the value in hex.  Deleted records are left out."""
import struct
import sys
import uuid

STORE_GUID = uuid.UUID('aaf32c78-947b-439a-a180-2e144ec37792').bytes_le
GLOBAL = uuid.UUID('8be4df61-93ca-11d2-aa0d-00e098032b8c')
HEADER = 60      # authenticated variable header
VAR_ADDED = 0x3F


def main(path):
    data = open(path, 'rb').read()
    start = data.find(STORE_GUID)
    if start < 0:
        sys.exit('no variable store in ' + path)
    end = start + struct.unpack_from('<I', data, start + 16)[0]
    at = start + 28
    found = {}
    while at + HEADER <= end:
        start_id, state = struct.unpack_from('<HB', data, at)
        if start_id != 0x55AA:
            break
        name_size, data_size = struct.unpack_from('<II', data, at + 36)
        vendor = uuid.UUID(bytes_le=data[at + 44:at + 60])
        name = data[at + HEADER:at + HEADER + name_size].decode('utf-16-le').rstrip('\0')
        value = data[at + HEADER + name_size:at + HEADER + name_size + data_size]
        if state == VAR_ADDED and vendor == GLOBAL:
            found[name] = value
        at = (at + HEADER + name_size + data_size + 3) & ~3
    for name in sorted(found):
        print(name, found[name].hex())


if __name__ == '__main__':
    main(sys.argv[1])
