#!/usr/bin/env python3
"""Makes the seed corpus of dhcp_fuzz: BOOTP/DHCP packets of the shapes a
PXE server sends (options in the list, options overloaded into the `file`
and `sname` fields, a plain BOOTP reply without the magic)."""
import os
import struct
import sys

out = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), 'corpus', 'dhcp_fuzz')
os.makedirs(out, exist_ok=True)


def bootp(file=b'', sname=b'', siaddr=bytes(4)):
    p = bytearray(236)
    p[0] = 2  # reply
    p[1], p[2] = 1, 6
    p[20:24] = siaddr
    p[44:44 + len(sname)] = sname
    p[108:108 + len(file)] = file
    return p


def option(tag, data):
    return bytes([tag, len(data)]) + data


MAGIC = struct.pack('>I', 0x63825363)

seeds = {
    'ack-with-bootfile': bootp(siaddr=bytes([10, 0, 2, 2])) + MAGIC + option(53, b'\x05') +
    option(54, bytes([10, 0, 2, 2])) + b'\x00\x00' + option(67, b'rescue/rescue.v2.efi\x00') + b'\xff',
    'overload-both': bootp(file=option(67, b'boot/loader.efi') + b'\xff',
                           sname=option(54, bytes([192, 168, 1, 1])) + b'\xff') + MAGIC +
    option(53, b'\x05') + option(52, b'\x03') + b'\xff',
    'bootp-no-magic': bootp(file=b'pxe/loader.efi', siaddr=bytes([192, 168, 1, 5])),
}
for name, data in seeds.items():
    with open(os.path.join(out, name), 'wb') as f:
        f.write(bytes(data).ljust(548, b'\x00') if name != 'bootp-no-magic' else bytes(data))
