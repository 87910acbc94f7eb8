"""A switch on the mock driver tests/kernel/mock_clock.c: what the tests in the guests of tools/check_kernel are made of.

swp0, swp2, swp4 ... are the switch's ports, swp1, swp3, swp5 ... the other ends of their cables.
"""

import contextlib
import os
import pathlib
import socket
import struct
import subprocess
import sys
import threading

import ring
from lab import ROOT, Plug, wait_until

sys.path.append(str(ROOT / "tests/system"))

import wire  # noqa: E402

DRIVER = ROOT / "build/kernel" / os.environ.get("ESMC_GUEST_arch", "x86_64") / "mock_clock.ko"
PARAMETERS = pathlib.Path("/sys/module/mock_clock/parameters")
FILES = pathlib.Path("/sys/kernel/debug/mock_clock")

UNLOCKED, LOCKED, LOCKED_ACQUIRED, HOLDOVER = "1", "2", "3", "4"  # of the kernel's interface


def far_end(port):
    return f"swp{int(port[3:]) + 1}"


class Clock:
    """The driver and what its hardware really does."""

    def load(self, **parameters):
        subprocess.run(["insmod", str(DRIVER)] + [f"{name}={value}" for name, value in parameters.items()], check=True)
        return self

    def unload(self):
        if PARAMETERS.exists():
            subprocess.run(["rmmod", "mock_clock"], check=True)

    def set(self, **parameters):
        self.refused = self.state()["refused"]
        for name, value in parameters.items():
            (PARAMETERS / name).write_text(str(value))

    def tell(self, file, what):
        (FILES / file).write_text(str(what))

    def state(self):
        return dict(line.split() for line in (FILES / "state").read_text().splitlines())

    def follows(self):
        return self.state()["follows"]

    def wait(self, **expected):
        wait_until(lambda: expected.items() <= self.state().items(), what=f"hardware: {expected}")

    def wait_refused(self):
        """Until a setting was refused since parameters were changed last."""
        wait_until(lambda: self.state()["refused"] != self.refused, what="a setting is refused")


class Status:
    """Asks an nsmd for its report, or hears what it tells esmcd, without a program for each question."""

    GET, HELLO, ACK, CLOCK_STATE = 300, 1, 2, 211

    def __init__(self, sw):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.socket.settimeout(3)
        self.socket.connect(str(sw.path("/run/nsmd.sock")))

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def report(self):
        self.socket.send(struct.pack(">HHI", self.GET, 8, 1))
        return b"".join(iter(lambda: self.socket.recv(4096)[8:], b"")).decode()

    def listen(self):
        """From now on `told` gives the states, as (state, source)."""
        self.socket.send(struct.pack(">HHIHHI", self.HELLO, 16, 1, 1, 36, 0))
        return self

    def told(self):
        """(state, source code) of every message so far."""
        found = []
        self.socket.setblocking(False)
        with contextlib.suppress(BlockingIOError):
            while True:
                packet = self.socket.recv(4096)
                if packet[:2] == struct.pack(">H", self.CLOCK_STATE):
                    found.append(struct.unpack(">II", packet[8:16]))
        return found


class Neighbours(threading.Thread):
    """Says on each cable's other end, every half second and at once after a change, what quality is there."""

    def __init__(self, node, ports):
        super().__init__(daemon=True)
        self.sockets = {port: node.packet_socket(far_end(port)) for port in ports}
        self.quality, self.changed, self.over = {}, threading.Event(), False
        self.start()

    def say(self, **quality):
        self.quality = {**self.quality, **quality}
        self.changed.set()

    def end(self):
        self.over = True
        self.changed.set()
        self.join()
        for each in self.sockets.values():
            each.close()

    def run(self):
        while not self.over:
            for port, quality in self.quality.items():
                with wire.network_down_ignored():
                    if quality is not None:
                        self.sockets[port].send(wire.esmc(quality))
            self.changed.wait(0.5)
            self.changed.clear()


class Box:
    """A switch whose ports are the driver's, with its neighbours."""

    def __init__(self, lab, clock, ports=("swp0", "swp2"), first=True):
        self.clock, self.ports, self.lab = clock, ports, lab
        self.tester = lab.node("tester", board=None)
        lines = "".join(f"!\ninterface {port}\n clock synce priority {10 + n}\n clock synce enable\n"
                        for n, port in enumerate(ports))
        self.sw = lab.switch("sw", config=ring.COMMON + lines, network=not first)
        self.plug_in()
        self.neighbours = None

    def plug_in(self):
        """Gives the driver's ports to whom they belong, and pulls them up."""
        far = [far_end(port) for port in self.ports]
        moves = [f"link set {port} netns {node.pid}" for ports, node in ((self.ports, self.sw), (far, self.tester))
                 for port in ports]
        subprocess.run(["ip", "-batch", "-"], input="\n".join(moves) + "\n", text=True, check=True)
        for ports, node in ((self.ports, self.sw), (far, self.tester)):
            node.ip_batch([f"link set {port} up" for port in ports])
        self.plugs = {port: Plug(self.tester, far_end(port)) for port in self.ports}

    def start_bare(self, *options):
        """The programs alone: no port need be there, no neighbour says anything."""
        self.sw.start_nsmd("--dpll", "kernel", *options)
        self.sw.start_esmcd()

    def speak(self, **quality):
        self.silence()
        self.neighbours = Neighbours(self.tester, self.ports)
        self.neighbours.say(**quality)

    def start(self, *options, **quality):
        self.start_bare(*options)
        wait_until(lambda: self.status().count(", up, flaps ") == len(self.ports), what="all ports are up")
        self.speak(**quality)
        return self

    def silence(self):
        """No neighbour says anything any more."""
        if self.neighbours:
            self.neighbours.end()
        self.neighbours = None

    def follow(self, *options):
        """The usual beginning: PRC on swp0, SSU-A on swp2, and everybody follows swp0."""
        self.start(*options, swp0=wire.PRC, swp2=wire.SSU_A)
        self.sees("swp0")
        return self

    def distrust(self, *ports):
        """The ports are no candidates any more, though their clocks go on."""
        self.sw.configure(*[line for port in ports for line in (f"interface {port}", "no clock synce enable")])

    def trust(self, port):
        self.sw.configure(f"interface {port}", "clock synce enable")

    def cable(self, port, up):
        self.plugs[port].set(up)

    def sees(self, source):
        """Hardware, nsmd and esmcd follow this port, and could hold over; None: nothing, and hold over."""
        self.clock.wait(follows=source or "nothing", status=LOCKED_ACQUIRED if source else HOLDOVER)
        state = f"locked, source {self.index(source)}," if source else "holdover, source 0,"
        wait_until(lambda: f"clock state: {state}" in self.status(), what=f"nsmd: {state}")
        if source:
            return self.sw.wait_clock(source=source, state="Lock", dpll="Lock", valid="Valid")
        return self.sw.wait_clock(source="N/A", state="Holdover", dpll="Holdover")

    def index(self, port):
        """esmcd's number of the port, once nsmd has it."""
        lines = wait_until(lambda: [line for line in self.status().splitlines() if f" {port}: " in line], what=port)
        return int(lines[0].split()[1])

    def status(self):
        """nsmd's report; empty while there is no nsmd."""
        with contextlib.suppress(ConnectionRefusedError, FileNotFoundError), Status(self.sw) as asked:
            return asked.report()
        return ""
