"""The test's own network services manager: the other end of the NSM link, octet by octet."""

import os
import select
import socket
import struct
import time

HELLO, HELLO_ACK, SYNC_DONE = 1, 2, 3
LINK_ADD, LINK_DELETE, LINK_UP, LINK_DOWN, BRIDGE_ADD = 10, 11, 12, 13, 115
GLOBAL_ENABLE, RECOVERY_SELECT, HOLDOVER, SELECTED, GEPHY, CLOCK_STATE = 206, 207, 208, 209, 210, 211

FREERUN, LOCK = 2, 4
BRIDGE_MAC = bytes.fromhex("001122334455")
BRIDGE_ID = "00:11:22:FF:FE:33:44:55"


class Message:
    def __init__(self, packet):
        self.packet = packet
        self.type, self.length, self.sequence = struct.unpack(">HHI", packet[:8])
        self.body = packet[8:]

    def words(self):
        return struct.unpack(f">{len(self.body) // 4}I", self.body[:len(self.body) // 4 * 4])

    def __repr__(self):
        return f"<{self.type} seq {self.sequence} {self.body.hex()}>"


def link_record(index, name, kernel=None, up=True, kind=2):
    mac = bytes([2, 0, 0, 0, index >> 8 & 255, index & 255])
    return struct.pack(">IIHH6s2x16s", index, index if kernel is None else kernel, kind, 1 if up else 0, mac,
                       name.encode())


class Nsm:
    """Listens on the node's NSM path. One connection at a time, as the daemon makes them."""

    def __init__(self, node):
        self.path = str(node.path("/run/nsmd.sock"))
        self.listener, self.connection, self.sequence = None, None, 0
        self.listen()

    def listen(self):
        if os.path.exists(self.path):
            os.unlink(self.path)
        self.listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.listener.bind(self.path)
        self.listener.listen(4)

    def accept(self, deadline=3.0):
        ready, _, _ = select.select([self.listener], [], [], deadline)
        assert ready, f"the daemon has not connected within {deadline} s"
        self.connection, _ = self.listener.accept()
        self.sequence = 0

    def close(self):
        if self.connection:
            self.connection.close()
            self.connection = None

    def vanish(self):
        """As if NSM had been killed: no link, no listener, no path."""
        self.close()
        self.listener.close()
        if os.path.exists(self.path):
            os.unlink(self.path)

    def send(self, kind, body=b""):
        self.sequence += 1
        self.connection.send(struct.pack(">HHI", kind, 8 + len(body), self.sequence) + body)

    def receive(self, deadline=3.0):
        """The next message; None when nothing comes."""
        if not select.select([self.connection], [], [], deadline)[0]:
            return None
        packet = self.connection.recv(4096)
        if not packet:
            raise AssertionError("the daemon closed the link")
        return Message(packet)

    def expect(self, kind, deadline=3.0):
        """The next message, which must be of this kind."""
        message = self.receive(deadline)
        assert message is not None, f"no message within {deadline} s, waiting for {kind}"
        assert message.type == kind, f"{message} instead of {kind}"
        return message

    def collect(self, quiet=0.3, deadline=5.0):
        """All messages until none has come for `quiet` seconds."""
        end, found = time.monotonic() + deadline, []
        while time.monotonic() < end:
            message = self.receive(quiet)
            if message is None:
                return found
            found.append(message)
        raise AssertionError(f"messages keep coming: {found[-5:]}")

    # --- the usual conversation

    def acknowledge(self):
        self.send(HELLO_ACK, struct.pack(">I", 0))

    def add(self, index, name, **more):
        self.send(LINK_ADD, link_record(index, name, **more))

    def up(self, index):
        self.send(LINK_UP, struct.pack(">I", index))

    def down(self, index):
        self.send(LINK_DOWN, struct.pack(">I", index))

    def delete(self, index, *flags):
        self.send(LINK_DELETE, struct.pack(f">{1 + len(flags)}I", index, *flags))

    def state(self, state, source=0):
        self.send(CLOCK_STATE, struct.pack(">II", state, source))

    def bridge(self):
        self.send(BRIDGE_ADD, struct.pack(">16sII6s2x", b"br0", 0, 1, BRIDGE_MAC))

    def session(self, ports=(), state=FREERUN):
        """Accepts, greets, dumps. `ports` are the arguments of `add`. Returns the HELLO."""
        self.accept()
        hello = self.expect(HELLO)
        self.acknowledge()
        self.bridge()
        for port in ports:
            self.add(**port)
        self.state(state)
        self.send(SYNC_DONE)
        return hello
