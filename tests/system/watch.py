"""A neighbour that goes on by itself: keeps a quality alive on one port and writes down what a port sends, while
the test is busy with something else."""

import contextlib
import errno
import fcntl
import socket
import struct
import threading
import time

import wire

SIOCGIFFLAGS, SIOCSIFFLAGS, IFF_UP = 0x8913, 0x8914, 1


@contextlib.contextmanager
def network_down_ignored():
    """A bound packet socket says once that its link has been down, and can't send meanwhile."""
    try:
        yield
    except OSError as error:
        if error.errno not in (errno.ENETDOWN, errno.ENXIO):
            raise


class Lateness:
    """How long this machine keeps a process waiting that wants to run every 5 ms: what the measured one may
    have had to bear as well."""

    def __init__(self):
        self.worst = 0.0

    def turn(self, stop):
        while not stop.is_set():
            began = time.monotonic()
            time.sleep(0.005)
            self.worst = max(self.worst, time.monotonic() - began - 0.005)


class Watch:
    """Says PRC on t1 as long as `feeding` is set. Frames seen on each watched port are in `seen[port]`."""

    def __init__(self, node, watched=("t1", "t2")):
        self.stop, self.errors = threading.Event(), []
        self.feeding, self.lateness = threading.Event(), Lateness()
        self.feeding.set()
        self.seen = {name: [] for name in watched}
        ports = {name: wire.Port(node, name) for name in watched}
        bodies = [lambda name=name: self._read(ports[name], self.seen[name]) for name in watched]
        bodies.append(lambda: self.lateness.turn(self.stop))
        bodies.append(lambda: self._feed(wire.Port(node, "t1")))
        self.threads = [threading.Thread(target=self._guard, args=(body,)) for body in bodies]
        for thread in self.threads:
            thread.start()

    def _guard(self, body):
        try:
            body()
        except BaseException as error:  # said at the end, by the test's own thread
            self.errors.append(error)

    def _read(self, port, seen):
        while not self.stop.is_set():
            with network_down_ignored():
                for frame in port.frames(0.2):
                    seen.append(frame)

    def _feed(self, port):
        while not self.stop.is_set():
            if self.feeding.is_set():
                with network_down_ignored():
                    port.send(wire.esmc(wire.PRC))
            self.stop.wait(0.5)

    def end(self):
        self.stop.set()
        for thread in self.threads:
            thread.join()
        assert not self.errors, self.errors

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.end()

    def first_after(self, port, when):
        """The first frame on the port that the kernel took after `when`; None while there is none."""
        return next((frame for frame in list(self.seen[port]) if frame.when > when), None)

    def assert_undisturbed(self, qualities, allowed=0.020):
        """Each port sent its quality, no event, and every second a frame: within `allowed` and what the machine
        itself was late by."""
        for port, quality in qualities.items():
            frames = self.seen[port]
            gaps = wire.gaps(frames)
            assert len(gaps) >= 3, (port, len(gaps))
            assert {(frame.quality, frame.event) for frame in frames} == {(quality, False)}, port
            worst = max(abs(gap - 1) for gap in gaps)
            print(f"{port}: {len(frames)} frames, {min(gaps) * 1000:.1f} to {max(gaps) * 1000:.1f} ms apart; "
                  f"the machine was up to {self.lateness.worst * 1000:.1f} ms late")
            assert worst <= allowed + self.lateness.worst, (port, [round(gap, 4) for gap in gaps])


def status_of(switch):
    """What `nsmd --status` prints."""
    return switch.run("/run/esmc-bin/nsmd", "--status").stdout


class Plug:
    """Pulls and plugs a cable without the delay of starting a program: returns when the kernel was asked."""

    def __init__(self, node, port):
        self.port = port.encode()
        self.socket = node.in_network(lambda: socket.socket(socket.AF_INET, socket.SOCK_DGRAM))

    def set(self, up):
        request = fcntl.ioctl(self.socket, SIOCGIFFLAGS, struct.pack("16sH22x", self.port, 0))
        flags = struct.unpack("16sH22x", request)[1]
        flags = flags | IFF_UP if up else flags & ~IFF_UP
        asked = time.monotonic()
        fcntl.ioctl(self.socket, SIOCSIFFLAGS, struct.pack("16sH22x", self.port, flags))
        return asked

    def close(self):
        with contextlib.suppress(OSError):
            self.socket.close()
