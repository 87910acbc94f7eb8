"""Links that lose frames: a program of six instructions in the kernel drops each frame that arrives on a port with a
given probability. It needs neither a queueing discipline nor a packet filter, which small kernels are built without.

The loss ends with the descriptor that drop() returns, so nothing has to be taken down.
"""

import ctypes
import os
import platform
import socket
import struct

_BPF = {"x86_64": 321, "i686": 357, "aarch64": 280, "armv7l": 386, "riscv64": 280}  # number of the system call
_PROG_LOAD, _LINK_CREATE, _PROG_TYPE_XDP, _ATTACH_XDP = 5, 28, 6, 37
_GENERIC = 2  # in the stack, before anybody sees the frame: the same on every kind of port
_GET_PRANDOM_U32, _XDP_DROP, _XDP_PASS = 7, 1, 2
_libc = ctypes.CDLL(None, use_errno=True)


def _bpf(command, attributes):
    if platform.machine() not in _BPF:
        raise OSError(0, f"losing frames is not built for {platform.machine()}")
    buffer = ctypes.create_string_buffer(attributes.ljust(128, b"\0"), 128)
    done = _libc.syscall(_BPF[platform.machine()], command, buffer, 128)
    if done < 0:
        raise OSError(ctypes.get_errno(), f"bpf: {os.strerror(ctypes.get_errno())}")
    return done


def _instruction(code, jump=0, value=0):
    return struct.pack("<BBhI", code, 0, jump, value)


def program(share):
    """Descriptor of a loaded program that drops this share (0 to 1) of the frames. OSError where the kernel has none."""
    limit = min(int(share * 2**31), 2**31 - 1)  # 31 bits: the comparison's operand would be extended by its sign
    code = b"".join([
        _instruction(0x85, value=_GET_PRANDOM_U32),
        _instruction(0x77, value=1),            # r0 >>= 1
        _instruction(0xa5, 2, limit),           # if r0 < limit, over the next two
        _instruction(0xb7, value=_XDP_PASS), _instruction(0x95),
        _instruction(0xb7, value=_XDP_DROP), _instruction(0x95),
    ])
    text, licence = ctypes.create_string_buffer(code), ctypes.create_string_buffer(b"")
    return _bpf(_PROG_LOAD, struct.pack("<IIQQ", _PROG_TYPE_XDP, len(code) // 8, ctypes.addressof(text),
                                        ctypes.addressof(licence)))


def drop(node, ports, loaded):
    """Descriptors of the attachments of a program to ports of a node; closing one ends the loss there."""
    def attach():
        return [_bpf(_LINK_CREATE, struct.pack("<IIII", loaded, socket.if_nametoindex(port), _ATTACH_XDP, _GENERIC))
                for port in ports]
    return node.in_network(attach)
