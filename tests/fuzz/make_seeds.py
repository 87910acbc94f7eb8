#!/usr/bin/env python3
"""Writes the seeds of the targets whose inputs are records: frame, nsm, nsmd_netlink, nsmd_genl, board.

Usage: make_seeds.py FOLDER      seeds go to FOLDER/TARGET/seed-NAME

The corpora in the tree were grown from these and minimised (tools/fuzz --keep); this stays as the description of
the formats, and for a start from nothing.
"""

import pathlib
import struct
import sys

PRC, SSU_A, SSU_B, EEC1, DNU = range(5)  # places in the target's table of qualities


def pdu(port, quality, event=0, extended=None, changes=()):
    what = event | (2 if extended else 0) | len(changes) << 2
    out = [(port - 1) << 4, what, quality]
    if extended:
        identity, hops = extended
        out += list(identity) + [hops]
    for at, value in changes:
        out += [at, value]
    return bytes(out)


def wait(units):
    return bytes([7, units])


def operation(port, kind, value):
    return bytes([(port - 1) << 4 | 14, kind, value])


def raw(port, octets):
    return bytes([port << 4 | 5, len(octets)]) + octets


def frame_seeds():
    on = bytes([0, DNU])  # everything enabled, option 1
    ports = bytes([0, 0]) * 3
    start = bytes([2]) + on + ports
    ident = bytes([0, 1, 2, 0xFF, 0xFE, 3, 4, 5])
    ethernet = bytes.fromhex("0180c2000002020000000001 8809 0a0019a700011000 0000 01 0004 02") + bytes(40)
    yield "lock", start + pdu(1, PRC) + wait(40) + pdu(1, PRC) + wait(40) + pdu(2, SSU_A)
    yield "switch", start + pdu(1, SSU_A) + pdu(2, PRC, 1) + wait(100) + pdu(1, DNU) + pdu(2, DNU)
    yield "timeout", start + pdu(1, PRC) + wait(200) + wait(50)
    yield "extension", bytes([2, 2, DNU]) + ports + pdu(1, PRC, 0, (ident, 3)) + pdu(2, PRC, 0, (ident, 1)) + wait(80)
    yield "links", start + pdu(1, PRC) + bytes([10]) + wait(4) + bytes([9]) + bytes([12, 1]) + bytes([11, 1])
    yield "clock", start + bytes([13, 3, 0]) + pdu(1, PRC) + bytes([13, 4, 1]) + bytes([13, 2, 0])
    yield "raw", start + raw(1, ethernet) + raw(1, ethernet[:20]) + raw(9, ethernet) + raw(1, b"")
    yield "force", start + operation(1, 12, 0) + pdu(2, PRC) + wait(9) + operation(1, 13, 0) + pdu(1, PRC)
    yield "options", bytes([2, 1, 5]) + bytes([0, 1, 16, 0x13, 4, 5]) + pdu(1, 5) + operation(1, 3, 0x86) + wait(60)
    yield "roles", start + operation(1, 4, 0) + wait(60) + operation(1, 4, 1) + pdu(1, PRC) + operation(1, 0, 0)
    yield "port", start + b"".join(operation(1, kind, 0x35) for kind in range(15)) + pdu(1, PRC)
    yield "cut", start + bytes([0, 0x40, PRC, 20]) + bytes([0, 0x40, PRC, 31]) + bytes([0, 0x40, PRC, 250])
    yield "changed", start + pdu(1, PRC, 0, None, [(1, 9), (3, 1), (12, 200)]) + pdu(1, 0x8F)


ACK, SYNC, ADD, DELETE, UP, DOWN, BRIDGE, CLOCK, RAW, ENDS, PASS, WRONG, OPERATE, LINK = range(14)


def record(kind, body=b""):
    return bytes([kind, len(body)]) + body


def words(*values):
    return struct.pack(f">{len(values)}I", *values)


def link(index, up=1, kind=2, name=b"sw1", kernel=None):
    mac = bytes([2, 0, 0, 0, 0, index & 255, 0, 0])
    return words(index, kernel or index) + struct.pack(">HH", kind, up) + mac + name.ljust(16, b"\0")


def nsm_seeds():
    greet = record(ACK, words(0))
    dump = greet + record(ADD, link(1)) + record(ADD, link(2, 0, name=b"sw2")) + record(CLOCK, words(2, 0)) + record(SYNC)
    bridge = record(BRIDGE, b"br0".ljust(16, b"\0") + words(1, 7) + bytes([2, 0, 0, 0, 0, 9, 0, 0]))
    for way, name in ((0, "link"), (1, "direct")):
        first = bytes([way])
        yield f"dump-{name}", first + dump
        yield f"bridge-{name}", first + greet + bridge + record(SYNC) + bridge
        yield f"changes-{name}", (first + dump + record(UP, words(2)) + record(DOWN, words(1)) +
                                  record(DELETE, words(1)) + record(DELETE, words(2, 1)) + record(ADD, link(1)))
        yield f"renamed-{name}", first + dump + record(ADD, link(1, name=b"other")) + record(ADD, link(3, name=b"sw2"))
        yield f"again-{name}", (first + dump + record(ENDS) + record(PASS, b"\x64") + greet + record(LINK, b"\x01\x01") +
                                record(CLOCK, words(4, 1)) + record(SYNC))
        yield f"refused-{name}", first + record(ACK, words(1)) + record(PASS, b"\x64") + greet + greet + record(SYNC)
        yield f"wrong-{name}", (first + greet + record(ADD, link(0)) + record(ADD, link(9999)) + record(ADD, link(5, name=b"")) +
                                record(ADD, words(1)) + record(WRONG, b"\x01abc") + record(RAW, b"\0\x0a") + record(RAW))
        yield f"requests-{name}", (first + record(OPERATE, bytes([0, 1, 1])) + record(OPERATE, bytes([1, 1, 1])) + dump +
                                   record(OPERATE, bytes([2, 1, 1])) + record(OPERATE, bytes([3, 1, 0])) +
                                   record(ENDS) + record(OPERATE, bytes([4, 0, 0])) + record(PASS, b"\x64") + dump)


def attribute(kind, value):
    return struct.pack("=HH", 4 + len(value), kind) + value + bytes(-len(value) % 4)


def netlink(kind, body, flags=0, length=None):
    return struct.pack("=IHHII", length or 16 + len(body), kind, flags, 0, 0) + body


def kernel_link(index, name, up=True, family=0, downs=0, kind=b"", master=0, kind_of_message=16, complete=True):
    body = struct.pack("=BxHiII", family, 1, index, 0x41 if up else 1, 0) + attribute(3, name + b"\0")
    body += attribute(1, bytes([2, 0, 0, 0, 0, index & 255]))
    if complete:
        body += attribute(16, bytes([6 if up else 2])) + attribute(33, bytes([up]))
    body += attribute(35, struct.pack("=I", 2 * downs)) + attribute(48, struct.pack("=I", downs))
    if kind:
        body += attribute(18 | 0x8000, attribute(1, kind + b"\0"))
    if master:
        body += attribute(10, struct.pack("=I", master))
    return netlink(kind_of_message, body + attribute(65 | 0x8000, attribute(1, struct.pack("=I", index))), 2)


def from_kernel(kind, data=b""):
    return bytes([kind]) + struct.pack("<H", len(data)) + data


def netlink_seeds():
    said, answered, error, done, later = 0, 1, 2, 3, 4
    one, two = kernel_link(1, b"sw1"), kernel_link(300, b"sw2", False)
    bridge = kernel_link(5, b"br0", kind=b"bridge")
    run = from_kernel(5, bytes(100))
    dump = from_kernel(answered, one + two) + from_kernel(done)
    yield "dump", dump
    yield "bridge", from_kernel(answered, bridge + kernel_link(1, b"sw1", master=5)) + from_kernel(done) + from_kernel(said, bridge)
    yield "changes", dump + from_kernel(said, kernel_link(1, b"sw1", False, downs=1)) + run + from_kernel(
        said, kernel_link(1, b"sw1", downs=2)) + from_kernel(said, kernel_link(1, b"sw1", kind_of_message=17))
    yield "renamed", dump + from_kernel(said, kernel_link(1, b"sw9")) + from_kernel(said, kernel_link(2, b"sw1"))
    yield "overrun", dump + from_kernel(error) + dump + from_kernel(2 + 6) + run + dump
    yield "incomplete", dump + from_kernel(said, kernel_link(1, b"sw1", complete=False)) + from_kernel(answered, one)
    yield "family", dump + from_kernel(said, kernel_link(1, b"sw1", family=7, kind_of_message=17))
    yield "refused", from_kernel(answered, netlink(2, struct.pack("=i", -16) + bytes(16))) + run + dump
    yield "kinds", from_kernel(answered, kernel_link(1, b"sw1", kind=b"dsa") + kernel_link(2, b"x", kind=b"veth")) + from_kernel(done)
    yield "lengths", from_kernel(said, netlink(16, bytes(16), length=0)) + from_kernel(said, one[:40]) + from_kernel(later, b"")


def genl_seeds():
    ports = bytes([3, 7, 11])
    lookup = b"\0"
    device = bytes([0, 0x20])  # what, device 0, manual
    pin = lambda number, place=0x10: bytes([0x08, 0x70 | number, 1, place, 0])  # noqa: E731
    dumps = bytes([1]) + device + bytes([3]) + pin(0) + pin(1) + pin(2)
    start = ports + lookup + dumps + lookup
    wanted = bytes([3, 0b00100100])
    yield "start", start
    yield "select", start + wanted + bytes([1]) + pin(0) + b"\0" * 8
    yield "refused", start + wanted + bytes([0x18, 0x28, 0x38, 0x48, 0x08]) + b"\2\xff\2\xff"
    yield "holdover", start + wanted + b"\0" * 6 + bytes([3, 0x34]) + b"\0" * 6
    yield "changes", start + bytes([0]) + pin(1, 0x11) + bytes([1]) + bytes([0x30, 0x18]) + bytes([2, 200]) + b"\0" * 9
    yield "deleted", start + bytes([0, 0x28, 1]) + bytes([0, 0x20, 0]) + bytes([2, 200])
    yield "mux", ports + lookup + bytes([1]) + device + bytes([3]) + pin(0, 0x13) + pin(1, 0x10) + pin(2, 0x13) + lookup + wanted
    yield "lost", start + bytes([6]) + pin(1) + bytes([2, 100]) + dumps
    yield "raw", start + bytes([0, 3, 12]) + attribute(1, struct.pack("=I", 1)) + bytes([1, 11, 8]) + attribute(18, b"abcd")
    yield "roles", start + bytes([7, 1]) + b"\0" * 3 + bytes([7, 3]) + b"\0" * 3 + bytes([7, 0, 5, 4, 2])


def board_seeds():
    yield "plain", b"board_type 12\nproduct_series 1\nsynce_support 1\n"
    yield "all", b"flash_size 0x2000000\nsdram_size 10000000\nboard_type ff\nproduct_series 1ff\nsynce_support 0\n"
    yield "odd", b"synce_support\nsynce_support 99999999999\nboard_typex 7\n\n \0 zero\nboard_type -1"
    yield "long", b"synce_support " + b"0" * 300 + b"1\n" + b"x" * 700
    yield "empty", b"\n"


def main():
    folder = pathlib.Path(sys.argv[1])
    for target, seeds in (("frame", frame_seeds()), ("nsm", nsm_seeds()), ("nsmd_netlink", netlink_seeds()),
                          ("nsmd_genl", genl_seeds()), ("board", board_seeds())):
        (folder / target).mkdir(parents=True, exist_ok=True)
        for name, octets in seeds:
            (folder / target / f"seed-{name}").write_bytes(octets)


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    main()
