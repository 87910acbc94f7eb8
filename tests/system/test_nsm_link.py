"""The NSM link, octet by octet: the test plays the network services manager."""

import select
import socket
import struct

from lab import wait_until
from wire import PRC, SSU_A, esmc

HELLO, HELLO_ACK, SYNC_DONE = 1, 2, 3
LINK_ADD, LINK_DELETE, LINK_UP, LINK_DOWN, BRIDGE_ADD = 10, 11, 12, 13, 115
GLOBAL_ENABLE, RECOVERY_SELECT, HOLDOVER, SELECTED, GEPHY, CLOCK_STATE = 206, 207, 208, 209, 210, 211

FREERUN, LOCK = 2, 4
BRIDGE = struct.pack(">16sII6s2x", b"br0", 0, 1, bytes.fromhex("001122334455"))
BRIDGE_ID = "00:11:22:FF:FE:33:44:55"
PORT = 2  # the kind of an interface


def link_record(index, name, kernel, up=True):
    return struct.pack(">IIHH6s2x16s", index, kernel, PORT, up, bytes([2, 0, 0, 0, 0, index]), name.encode())


class Nsm:
    """Listens on the node's NSM path. One connection at a time, as the daemon makes them."""

    def __init__(self, node):
        self.connection, self.sequence = None, 0
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.listener.bind(str(node.path("/run/nsmd.sock")))
        self.listener.listen(4)

    def accept(self):
        if self.connection:
            self.connection.close()
        self.listener.settimeout(3)
        self.connection, self.sequence = self.listener.accept()[0], 0

    def send(self, kind, *words, body=b""):
        self.sequence += 1
        body = struct.pack(f">{len(words)}I", *words) + body
        self.connection.send(struct.pack(">HHI", kind, 8 + len(body), self.sequence) + body)

    def collect(self, quiet=0.3):
        """All messages, as (sequence, type, word...), until none has come for `quiet` seconds."""
        found = []
        while select.select([self.connection], [], [], quiet)[0]:
            packet = self.connection.recv(4096)
            kind, length, sequence = struct.unpack(">HHI", packet[:8])
            assert length == len(packet)
            found.append((sequence, kind, *struct.unpack(f">{length // 4 - 2}I", packet[8:])))
        return found

    def asked(self):
        return [message[1:] for message in self.collect()]

    def session(self, ports, state=FREERUN):
        """Accepts, is greeted, dumps. `ports` are the arguments of `link_record`."""
        self.accept()
        assert self.collect() == [(1, HELLO, 1 << 16 | 36, 0)]
        self.send(HELLO_ACK, 0)
        self.send(BRIDGE_ADD, body=BRIDGE)
        for port in ports:
            self.send(LINK_ADD, body=link_record(*port))
        self.send(CLOCK_STATE, state, 0)
        assert self.collect(0.1) == [], "nothing is asked before the dump is complete"
        self.send(SYNC_DONE)


def test_every_message_in_both_directions(configured):
    sw, nsm = configured, Nsm(configured)
    ports = [(index, name, int(sw.ip("-o", "link", "show", name).stdout.split(":")[0]))
             for index, name in ((1, "p1"), (2, "p2"))]
    sw.start_esmcd(wait=False)
    nsm.session(ports)
    sw.wait_shell()
    sw.wait_clock(id=BRIDGE_ID, dpll="FreeRun", state="FreeRun")
    sw.wait_port("p1", up="enable", priority="10")
    assert nsm.collect() == [(2, GLOBAL_ENABLE, 1)]
    nsm.send(CLOCK_STATE, LOCK, 1)
    sw.wait_clock(dpll="Lock", valid="Valid")
    for port, quality, asked in ((sw.t1, SSU_A, [(3, SELECTED, 1, 0)]),  # out of free-run: no holdover to leave
                                 (sw.t2, PRC, [(4, SELECTED, 2, 0)]),
                                 (sw.t2, PRC, [])):  # a repeated frame asks for nothing
        port.send(esmc(quality))
        assert nsm.collect() == asked

    # Both links go: holdover, told as 0. One returns: holdover ends, told as 1, before the source.
    for index, asked in ((2, [(SELECTED, 1, 0)]), (1, [(HOLDOVER, 0)])):
        nsm.send(LINK_DOWN, index)
        assert nsm.asked() == asked
    nsm.send(LINK_UP, 1)
    sw.t1.send(esmc(SSU_A))
    assert nsm.asked() == [(HOLDOVER, 1), (SELECTED, 1, 0)]
    nsm.send(LINK_DELETE, 2, 1)  # the interface itself too
    wait_until(lambda: sw.port("p2") == {}, 2)
    assert "interface p2" not in sw.show("running-config")

    # After a reconnection: what changed meanwhile on one side, all that is wanted on the other.
    sw.configure("clock recovery-select bits bits1", "no clock synce ssm enable", "clock synce ssm enable gephy")
    nsm.session([(*ports[0], False), (3, "p3", 77)], state=LOCK)
    assert {(GLOBAL_ENABLE, 1), (RECOVERY_SELECT, 1)} <= set(nsm.asked())
    sw.wait_port("p3", up="enable (with gephy)")
    sw.wait_port("p1", up="disable")
    sw.configure("interface p1", "clock synce enable")
    nsm.send(LINK_UP, 1)
    sw.t1.send(esmc(PRC))
    assert (GEPHY, 1, 1, 2) in nsm.asked()
