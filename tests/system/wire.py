"""ESMC frames made and read by hand, for tests that speak to a port directly."""

import contextlib
import errno
import select
import socket
import struct
import time

from esmc_frame import DNU, EEC1, GROUP, PRC, SLOW, SOURCE, SSU_A, SSU_B, esmc  # noqa: F401 (for the tests)

SO_TIMESTAMPNS = 35


class Seen:
    """One frame taken off a link, with the time at which it came."""

    def __init__(self, frame, when, port):
        self.frame, self.when, self.port = frame, when, port
        payload, self.source = frame[14:], frame[6:12]
        self.event, self.quality = bool(payload[6] & 8), payload[13]
        self.extended, self.clock_id, self.hop = payload[14] == 2, payload[17:25], payload[25]
        self.standard, self.enhanced = payload[14:17] == bytes([2, 0, 20]), None
        if self.standard:
            self.enhanced, self.clock_id, self.chain = payload[17], payload[18:26], tuple(payload[26:29])


def stamp(ancillary):
    """When the kernel took the frame, on the monotonic clock: the reader may come late."""
    seconds, nanoseconds = struct.unpack("ll", ancillary[0][2])  # the machine's own words
    return time.monotonic() - (time.time() - seconds - nanoseconds / 1e9)


def gaps(frames):
    """Seconds from each frame to the next."""
    return [later.when - earlier.when for earlier, later in zip(frames, frames[1:])]


def assert_on_time(frames, count, late, allowed=0.020):
    """At least so many information frames of one port, a second apart within what is allowed and what the machine was
    late by."""
    apart = gaps([frame for frame in frames if not frame.event])
    print(f"{len(apart)} gaps, {min(apart) * 1000:.1f} to {max(apart) * 1000:.1f} ms")
    assert len(apart) >= count
    assert all(abs(gap - 1) <= allowed + late for gap in apart), (late, [round(gap, 4) for gap in apart])


@contextlib.contextmanager
def network_down_ignored():
    """A bound packet socket says once that its link has been down, and can't send meanwhile."""
    try:
        yield
    except OSError as error:
        if error.errno not in (errno.ENETDOWN, errno.ENXIO):
            raise


class Port:
    """The tester's end of a link: sends frames and reads the ESMC frames that arrive. With None: of all links."""

    def __init__(self, node, name):
        self.socket = node.packet_socket(name)
        self.socket.setsockopt(socket.SOL_SOCKET, SO_TIMESTAMPNS, 1)

    def send(self, frame):
        for _ in range(2):
            with network_down_ignored():
                return self.socket.send(frame)

    def frames(self, seconds):
        """ESMC frames from the other side, as they come, for at most `seconds`."""
        end = time.monotonic() + seconds
        while True:
            left = end - time.monotonic()
            if left <= 0 or not select.select([self.socket], [], [], left)[0]:
                return
            frame = b""
            with network_down_ignored():
                frame, ancillary, _, address = self.socket.recvmsg(2048, 64)
            if frame[12:14] == SLOW and address[2] != 4 and len(frame) >= 40:  # 4: sent from this very port
                yield Seen(frame, stamp(ancillary), address[0])

    def drain(self):
        while select.select([self.socket], [], [], 0)[0]:
            with network_down_ignored():
                self.socket.recv(2048)

    def expect(self, deadline=10, **fields):
        """The first frame whose fields have these values."""
        others = []
        for seen in self.frames(deadline):
            if all(getattr(seen, name) == value for name, value in fields.items()):
                return seen
            others.append((seen.quality, seen.event))
        raise AssertionError(f"no frame with {fields} within {deadline} s; (quality, event) seen: {others}")


class Neighbour:
    """Keeps a quality alive on a port: sends an information frame now, and again whenever `keep` is called
    and half a second has passed. `tlv` stands behind the QL TLV."""

    def __init__(self, port, quality, tlv=b""):
        self.port, self.quality, self.tlv, self.last = port, quality, tlv, 0.0
        self.keep()

    def keep(self):
        if time.monotonic() - self.last > 0.5:
            self.last = time.monotonic()
            frame = esmc(self.quality)
            self.port.send(frame[:28] + self.tlv + frame[28 + len(self.tlv):])
        return True
