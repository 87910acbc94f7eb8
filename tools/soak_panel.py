"""What tools/soak puts between its switches and before them: a patch panel that carries, loses, delays and doubles the frames of
each cable, and esmcmap that looks on."""

import contextlib
import heapq
import json
import select
import subprocess
import threading
import time

from lab import Lab, Plug
from map_demo import switch_file
from network_watch import only_esmc

PACKET_IGNORE_OUTGOING = (263, 23)


class Panel:
    """The patch panel: every port of every switch ends in it, and a thread carries the frames of each cable, or loses,
    delays, doubles them."""

    def __init__(self, lab, model, chance):
        self.node, self.model, self.chance, self.plugs = lab.node("panel", board=None), model, chance, {}
        self.outlet = {end: f"x{end[0]}{end[1]}" for end in model.ends}
        self.end_of = {name: end for end, name in self.outlet.items()}
        self.late, self.count, self.ending, self.carried = [], 0, False, 0

    def join(self, switches):
        for number, (end, name) in enumerate(self.outlet.items()):
            switch = switches[end[0]]
            Lab.links([(switch, end[1], 10 + number, self.node, name, 400 + number)])
            switch.ip("link", "set", end[1], "address", self.model.address(end))
            switch.link_set(end[1], True)
            self.plugs[end] = Plug(self.node, name)
        self.socket = self.node.packet_socket(None, 0x8809)
        only_esmc(self.socket)
        self.socket.setsockopt(*PACKET_IGNORE_OUTGOING, 1)
        self.socket.setblocking(False)
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    def carrier(self, end, up):
        self.model.carrier[end] = up
        self.plugs[end].set(up)

    def _run(self):
        while not self.ending:
            wait = self.late[0][0] - time.monotonic() if self.late else 0.2
            select.select([self.socket], [], [], max(0.0, min(wait, 0.2)))
            with contextlib.suppress(BlockingIOError):
                while True:
                    frame, address = self.socket.recvfrom(2048)
                    self._take(self.end_of.get(address[0]), frame)
            while self.late and self.late[0][0] <= time.monotonic():
                self._carry(*heapq.heappop(self.late)[2:])

    def _take(self, end, frame):
        way = self.model.ways.get(end)
        if way is None or way.deaf or self.chance.random() < way.loss:
            return
        for _ in range(2 if self.chance.random() < way.twice else 1):
            late = self.chance.uniform(*way.delay) if way.delay else 0
            self.count += 1
            heapq.heappush(self.late, (time.monotonic() + late, self.count, end, frame))

    def _carry(self, end, frame):
        other = self.model.other.get(end)
        if other and self.model.carrier[end]:
            self.carried += 1
            with contextlib.suppress(OSError):
                self.socket.sendto(frame, (self.outlet[other], 0))

    def stop(self):
        self.ending = True
        self.thread.join()
        self.socket.close()


class Map:
    """esmcmap that looks on: its states as they come."""

    def __init__(self, lab, switches, say):
        self.say = say
        path = switch_file(lab.logs / "switches", {f"S{number}": switch for number, switch in switches.items()})
        self.process = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", lab.build / "bin/esmcmap", path, "--watch", "--json"], stdout=subprocess.PIPE)
        self.state, self.changed = None, time.monotonic()
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.process.stdout:
            before, self.state, self.changed = self.state, json.loads(line), time.monotonic()
            if self.state["loops"] and not (before and before["loops"]):
                self.say(f"  the map shows loops {self.state['loops']}")

    def stop(self):
        self.process.terminate()
        assert self.process.wait(5) in (0, 1, 3), f"esmcmap: {self.process.returncode}"
