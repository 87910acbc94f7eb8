"""What a network of switches says to itself, taken off its links, and what follows from it.

One packet socket in each namespace hears what arrives on all ports there, with the kernel's time of each frame; every link
ends in two namespaces, so each frame is heard once. A thread empties the sockets twenty times a second: the times are
the kernel's, so coming late costs nothing, and the switches are hardly disturbed.

Who follows whom is what the switches tell: DNU goes to the neighbour that a switch follows. A switch that changes its source without a
change of quality tells so with its next information PDU, up to a second later.

A frame whose content differs from the one before it on the same line (one direction of one link) is a change; only
changes are kept, and the times of all frames.
"""

import array
import ctypes
import select
import socket
import struct
import threading
import time

from esmc_frame import DNU, SLOW

WORLD = -1  # the node outside the network: the master at one port, a listener at another

_SO_TIMESTAMPNS, _SO_ATTACH_FILTER, _SOL_PACKET, _PACKET_STATISTICS = 35, 26, 263, 6
_ETH_P_SLOW = int.from_bytes(SLOW, "big")
_PERIOD = 0.05
SECOND = 1_000_000_000


def now():
    """Nanoseconds, on the clock of the frames' times."""
    return time.clock_gettime_ns(time.CLOCK_REALTIME)


def only_esmc(made):
    """Lets only organization specific slow protocol frames into the socket."""
    code = b"".join(struct.pack("HBBI", *row) for row in
                    ((0x30, 0, 0, 14), (0x15, 0, 1, 0x0a), (0x06, 0, 0, 0x40000), (0x06, 0, 0, 0)))
    text = ctypes.create_string_buffer(code)
    made.setsockopt(socket.SOL_SOCKET, _SO_ATTACH_FILTER, struct.pack("HL", 4, ctypes.addressof(text)))


class Line:
    """One direction of one link: what `sender`, a (switch, port), has said."""

    __slots__ = ("sender", "times", "last")

    def __init__(self, sender):
        self.sender, self.times, self.last = sender, array.array("q"), None


class Watch:
    """Hears all lines. `peer` says for each (switch, port) which one is at the other end of its link."""

    def __init__(self, peer):
        self.lines = {receiver: Line(sender) for receiver, sender in peer.items()}
        self.changes = []      # (time, sender, (quality, identity, hops)), as they were read: not in order
        self.changed_at = 0    # of the last change that a switch made
        self.dropped = 0       # frames that the kernel had no room for
        self.cpu_seconds = 0.0
        self._sockets, self._epoll = {}, select.epoll()
        self._lock, self._stop, self._thread = threading.Lock(), threading.Event(), None

    def add(self, switch, node):
        made = node.packet_socket(None, _ETH_P_SLOW)
        only_esmc(made)
        made.setsockopt(socket.SOL_SOCKET, _SO_TIMESTAMPNS, 1)
        made.setblocking(False)
        with self._lock:
            self._sockets[made.fileno()] = (switch, made)
            self._epoll.register(made, select.EPOLLIN)

    def start(self):
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def stop(self):
        self._stop.set()
        if self._thread:
            self._thread.join()
        for _, made in self._sockets.values():
            made.close()

    def _run(self):
        while not self._stop.wait(_PERIOD):
            self.drain()
            self.cpu_seconds = time.thread_time()

    def drain(self):
        """Reads what has come so far."""
        with self._lock:
            self._drain()

    def _drain(self):
        for descriptor, _ in self._epoll.poll(0, len(self._sockets) or 1):
            switch, made = self._sockets[descriptor]
            try:
                while True:
                    frame, ancillary, _, address = made.recvmsg(64, 64)
                    self._take(self.lines.get((switch, address[0])), frame, ancillary)
            except BlockingIOError:
                pass
            self.dropped += struct.unpack("II", made.getsockopt(_SOL_PACKET, _PACKET_STATISTICS, 8))[1]

    def _take(self, line, frame, ancillary):
        if line is None or len(frame) < 40 or frame[12:14] != SLOW:
            return
        seconds, nanoseconds = struct.unpack("qq", ancillary[0][2][:16])
        when = seconds * SECOND + nanoseconds
        line.times.append(when)
        said = (frame[27], frame[31:39], frame[39]) if frame[28] == 2 else (frame[27], None, 0)
        if said == line.last:
            return
        line.last = said
        self.changes.append((when, line.sender, said))
        if line.sender[0] != WORLD:
            self.changed_at = max(self.changed_at, when)

    def forget(self, senders):
        """What was said on these lines is over (a link is down): whatever comes next is a change."""
        with self._lock:
            self._drain()
            for line in self.lines.values():
                if line.sender in senders:
                    line.last = None

    def take_changes(self):
        """The changes since the last call, in the order of their times."""
        with self._lock:
            self._drain()
            taken, self.changes = self.changes, []
        return sorted(taken, key=lambda change: change[0])

    def silent(self):
        """The switches' lines on which nothing was ever said."""
        return [line.sender for line in self.lines.values() if line.sender[0] != WORLD and not line.times]

    def count(self, began, ended):
        """(PDUs that switches sent in this time, the most that one port sent within any second of it)."""
        total, most = 0, 0
        for line in self.lines.values():
            if line.sender[0] == WORLD:
                continue
            times = [when for when in line.times if began <= when < ended]
            total += len(times)
            first = 0
            for last, when in enumerate(times):
                while when - times[first] >= SECOND:
                    first += 1
                most = max(most, last - first + 1)
        return total, most


class Loop:
    def __init__(self, began, members):
        self.began, self.members, self.ended = began, members, None


class Follows:
    """Who follows whom, and the loops among them."""

    def __init__(self, peer):
        self.peer, self.port, self.loops, self._loop_of = peer, {}, [], {}

    def set(self, when, switch, port):
        """From now on the switch follows whoever is at this port; None: nobody."""
        broken = self._loop_of.get(switch)
        if broken:
            broken.ended = when
            for member in broken.members:
                del self._loop_of[member]
        self.port[switch] = port
        if port is None:
            return
        chain, at = [switch], self.neighbour(switch)
        while at != switch:
            if at in self._loop_of or self.port.get(at) is None:
                return
            chain.append(at)
            at = self.neighbour(at)
        made = Loop(when, chain)
        self.loops.append(made)
        self._loop_of.update(dict.fromkeys(chain, made))

    def neighbour(self, switch):
        return self.peer[switch, self.port[switch]][0]


class Story:
    """What the switches told over time: their qualities, and whom they follow. Read phase by phase."""

    def __init__(self, peer):
        self.quality, self.follows = {}, Follows(peer)
        self.dnu = {switch: [] for switch, _ in peer}  # the ports that were last told DNU, the latest at the end

    def read(self, changes, ends, began):
        """Goes on with the changes and with the ends of lines, (time, sender) each, of one phase. Returns its figures in ms
        since `began`; None where nothing changed."""
        before = len(self.follows.loops)
        standing = [loop for loop in self.follows.loops if loop.ended is None]
        first = quality_last = last = None
        requalified = set()
        events = [(when, 1, sender, said) for when, sender, said in changes]
        events += [(when, 0, sender, None) for when, sender in ends]
        for when, is_change, (switch, port), said in sorted(events, key=lambda event: event[:2]):
            if not is_change:
                self._tells_dnu(when, switch, port, False)
                continue
            if switch == WORLD:
                continue
            if when >= began:
                first, last = first or when, when
            if self._said(when, switch, port, said) and when >= began:
                quality_last = when
                requalified.add(switch)

        def since(when):
            return None if when is None else round((when - began) / 1e6, 3)
        loops = standing + self.follows.loops[before:]
        return {"first_ms": since(first), "quality_ms": since(quality_last), "still_ms": since(last),
                "switches_that_told": len(requalified), "loops": self._loops(loops, began)}

    def _said(self, when, switch, port, said):
        """Whether what the switch says of its clock is new."""
        self._tells_dnu(when, switch, port, said[0] == DNU)
        if said[0] == DNU:
            return False
        new = self.quality.get(switch) != said[0]
        self.quality[switch] = said[0]
        return new

    def _tells_dnu(self, when, switch, port, tells):
        """A former source is told DNU until its next PDU, so the port that was told last counts."""
        ports = self.dnu[switch]
        if port in ports:
            ports.remove(port)
        if tells:
            ports.append(port)
        source = ports[-1] if ports else None
        if self.follows.port.get(switch) != source:
            self.follows.set(when, switch, source)

    @staticmethod
    def _loops(loops, began):
        end = now()
        lasted = [((loop.ended or end) - max(loop.began, began)) / 1e6 for loop in loops]
        return {"seen": len(loops), "longest_ms": round(max(lasted, default=0), 3), "total_ms": round(sum(lasted), 3),
                "largest": max((len(loop.members) for loop in loops), default=0),
                "on_links_at_end": sum(loop.ended is None for loop in loops)}
