"""A neighbour that goes on by itself: keeps a quality alive on one port and writes down what a port sends, while
the test is busy with something else."""

import collections
import contextlib
import os
import threading
import time

import wire


def seconds_waited(pid):
    """How long a process could have run and did not, by the kernel's account."""
    with contextlib.suppress(OSError), open(f"/proc/{pid}/schedstat") as account:
        return int(account.read().split()[1]) / 1e9
    return 0.0


class Late:
    """`late` is how long this machine kept somebody waiting who wants to run every 5 ms: the measured one may have
    borne it as well. Of a process that has much to do, how long it waited for a processor in a quarter of a second."""

    def __init__(self, pid=None):
        self.stop, self.late, self.pid = threading.Event(), 0.0, pid
        self.threads = [threading.Thread(target=self._measure)]

    def _measure(self):
        waited, pid = collections.deque([0.0], 50), None
        while not self.stop.is_set():
            began = time.monotonic()
            time.sleep(0.005)
            if pid != self.pid:  # somebody else from now on
                pid = self.pid
                waited.clear()
            waited.append(seconds_waited(pid))
            self.late = max(self.late, time.monotonic() - began - 0.005, waited[-1] - waited[0])

    def __enter__(self):
        for thread in self.threads:
            thread.start()
        return self

    def __exit__(self, *_):
        self.stop.set()
        for thread in self.threads:
            thread.join()


class Watch(Late):
    """Says PRC on t1 as long as `feeding` is set. Frames seen on each watched port are in `seen[port]`."""

    def __init__(self, node, watched=("t1", "t2")):
        super().__init__()
        self.errors, self.feeding = [], threading.Event()
        self.feeding.set()
        self.seen = {name: [] for name in watched}
        ports = {name: wire.Port(node, name) for name in watched}
        bodies = [(self._read, ports[name], self.seen[name]) for name in watched]
        bodies += [(self._feed, wire.Port(node, "t1"))]
        self.threads += [threading.Thread(target=self._guard, args=body) for body in bodies]

    def _guard(self, body, *arguments):
        try:
            body(*arguments)
        except BaseException as error:  # said at the end, by the test's own thread
            self.errors.append(error)

    def _read(self, port, seen):
        while not self.stop.is_set():
            for frame in port.frames(0.2):
                seen.append(frame)

    def _feed(self, port):
        while not self.stop.is_set():
            if self.feeding.is_set():
                port.send(wire.esmc(wire.PRC))
            self.stop.wait(0.5)

    def __exit__(self, *_):
        super().__exit__()
        assert not self.errors, self.errors

    def first(self, port, condition):
        """The first frame seen on the port that is as wanted; None while there is none."""
        return next(filter(condition, list(self.seen[port])), None)

    def assert_undisturbed(self, qualities, allowed=0.020):
        """Each port sent its quality, no event, and every second a frame: within `allowed` and what the machine
        itself was late by."""
        for port, quality in qualities.items():
            frames = self.seen[port]
            assert {(frame.quality, frame.event) for frame in frames} == {(quality, False)}, port
            wire.assert_on_time(frames, 3, self.late, allowed)


def status_of(switch):
    """What `nsmd --status` prints."""
    return switch.run("/run/esmc-bin/nsmd", "--status").stdout


def process_status(pid):
    """The kernel's account of a process."""
    with open(f"/proc/{pid}/status") as status:
        return dict(line.rstrip("\n").split(":\t", 1) for line in status if ":\t" in line)


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat") as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
