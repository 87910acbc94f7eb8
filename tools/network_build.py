"""Networks of many switches on one machine: their links, their configuration, their start and their end.

Switch 0 hears a master, which is a thread that says PRC once a second on a link of its own ("pf" at the switch). The
last switch of a chain has a link to nobody ("pt"), so that what it tells can be heard. Switches are numbered; their other ports are
p1, p2, ... in the order of the links.
"""

import collections
import concurrent.futures
import contextlib
import os
import pathlib
import random
import resource
import signal
import threading

import lossy
import ring
from esmc_frame import PRC, esmc
from lab import BIN, Plug, wait_until
from network_watch import WORLD, Follows, Watch, now

NSMD_OPTIONS = ("--port", "p*", "--dpll", "sim")

# What one switch needs: its two programs, the process that holds its namespaces, and the kernel's share of those.
KIB_PER_SWITCH, KIB_RESERVE = 2048, 400 << 10
DESCRIPTORS_PER_SWITCH, PROCESSES_PER_SWITCH = 3, 3


# ---- What the machine can bear --------------------------------------------------------------------------------

def _number(path):
    try:
        text = pathlib.Path(path).read_text().split()[0]
        return int(text) if text.isdigit() else None
    except (OSError, IndexError):
        return None


def memory_kib(*names):
    """Lines of /proc/meminfo, added."""
    lines = dict(line.split(":") for line in pathlib.Path("/proc/meminfo").read_text().splitlines())
    return sum(int(lines[name].split()[0]) for name in names if name in lines)


def _pids_limit():
    for line in pathlib.Path("/proc/self/cgroup").read_text().splitlines():
        if line.startswith("0::"):
            return _number(f"/sys/fs/cgroup{line[3:]}/pids.max")
    return None


def too_small(switches):
    """Why so many switches can't run here: a sentence each. Raises the limit of descriptors as far as it may."""
    if os.geteuid() != 0:
        return ["this must run as root: it makes network and mount namespaces"]
    found = []
    need = KIB_RESERVE + switches * KIB_PER_SWITCH
    available = memory_kib("MemAvailable")
    if available < need:
        found.append(f"memory: {need >> 10} MiB are needed, {available >> 10} MiB are available")
    descriptors = 200 + switches * DESCRIPTORS_PER_SWITCH
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if soft != resource.RLIM_INFINITY and soft < descriptors:
        if hard != resource.RLIM_INFINITY and hard < descriptors:
            found.append(f"open files (ulimit -Hn): {descriptors} are needed, {hard} are allowed")
        else:
            resource.setrlimit(resource.RLIMIT_NOFILE, (descriptors, hard))
    processes = 200 + switches * PROCESSES_PER_SWITCH
    spaces = switches + 8
    for what, limit, need in (("processes (kernel.pid_max)", _number("/proc/sys/kernel/pid_max"), processes),
                              ("threads (kernel.threads-max)", _number("/proc/sys/kernel/threads-max"), processes),
                              ("processes of this control group (pids.max)", _pids_limit(), processes),
                              ("network namespaces (user.max_net_namespaces)",
                               _number("/proc/sys/user/max_net_namespaces"), spaces),
                              ("mount namespaces (user.max_mnt_namespaces)",
                               _number("/proc/sys/user/max_mnt_namespaces"), spaces)):
        if limit is not None and limit < need:
            found.append(f"{what}: {need} are needed, {limit} are allowed")
    return found


# ---- Shapes ---------------------------------------------------------------------------------------------------

def chain(count, _drawn):
    return [(at, at + 1) for at in range(count - 1)]


def closed_ring(count, drawn):
    return chain(count, drawn) + [(count - 1, 0)]


def mesh(count, drawn):
    """A ring through all in a drawn order, so that everybody is reached, and half as many links across it."""
    order = list(range(count))
    drawn.shuffle(order)
    links = {tuple(sorted(pair)) for pair in zip(order, order[1:] + order[:1])}
    wanted = len(links) + count // 2
    while len(links) < wanted:
        links.add(tuple(sorted(drawn.sample(range(count), 2))))
    return sorted(links)


KINDS = {"chain": (chain, 2), "ring": (closed_ring, 3), "mesh": (mesh, 6)}


def distances(count, links):
    """Of each switch from switch 0, in links; those that are cut off are not in it."""
    beside = collections.defaultdict(list)
    for one, other in links:
        beside[one].append(other)
        beside[other].append(one)
    found, queue = {0: 0}, collections.deque([0])
    while queue:
        at = queue.popleft()
        for other in beside[at]:
            if other not in found:
                found[other] = found[at] + 1
                queue.append(other)
    return found


class Plan:
    """Who is linked to whom through which port, and with which priorities."""

    def __init__(self, kind, count, seed=1):
        drawn = random.Random(seed)
        shape, least = KINDS[kind]
        if count < least:
            raise ValueError(f"a {kind} has at least {least} switches")
        self.kind, self.count, self.links, self.peer = kind, count, shape(count, drawn), {}
        self.ports = collections.defaultdict(list)  # switch -> its ports, in their order
        self.wires = [(self._port(one), self._port(other)) for one, other in self.links]
        self.wires.append(((WORLD, "m1"), self._port(0, "pf")))
        if kind == "chain":
            self.wires.append((self._port(count - 1, "pt"), (WORLD, "t1")))
        for one, other in self.wires:
            self.peer[one], self.peer[other] = other, one
        # In chains and rings the neighbour before comes first, so a ring's alternative is at its far end; a mesh is drawn.
        self.priority = {}
        for (switch, port), (other, _) in self.peer.items():
            if WORLD in (switch, other):
                self.priority[switch, port] = 5 if port == "pf" else 30
            elif kind == "mesh":
                self.priority[switch, port] = drawn.choice((10, 20, 20, 30))
            else:
                self.priority[switch, port] = 10 if other == switch - 1 else 20

    def _port(self, switch, name=None):
        name = name or f"p{len(self.ports[switch]) + 1}"
        self.ports[switch].append(name)
        return switch, name

    def config(self, switch, extra):
        blocks = [f"interface {port}\n clock synce priority {self.priority[switch, port]}\n clock synce enable\n!\n"
                  for port in self.ports[switch]]
        return ring.COMMON + "".join(f"{line}\n" for line in extra) + "!\n" + "".join(blocks)


# ---- The running network --------------------------------------------------------------------------------------

class Crew:
    """Does one thing for many, a few at a time. Its threads live until the end, because the processes that they start end
    with them."""

    def __init__(self):
        self.pool = concurrent.futures.ThreadPoolExecutor(2 * (os.cpu_count() or 1))

    def each(self, function, items, done=lambda count: None):
        waiting = [self.pool.submit(function, item) for item in items]
        try:
            for count, future in enumerate(concurrent.futures.as_completed(waiting), 1):
                future.result()
                done(count)
            return [future.result() for future in waiting]
        except BaseException:
            for future in waiting:
                future.cancel()
            concurrent.futures.wait(waiting)
            raise


class Feed:
    """The master: says PRC once a second while it talks."""

    def __init__(self, node):
        self.talks, self._end, self._woken = False, False, threading.Event()
        self.socket = node.packet_socket("m1", 0)
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    def set(self, talks):
        self.talks = talks
        self._woken.set()

    def _run(self):
        while not self._end:
            if self.talks:
                for _ in range(2):  # a socket says once that its link has been down
                    with contextlib.suppress(OSError):
                        self.socket.send(esmc(PRC))
                        break
            self._woken.wait(1.0)
            self._woken.clear()

    def stop(self):
        self._end = True
        self._woken.set()
        self.thread.join()
        self.socket.close()


class Network:
    """All switches of a plan. `extra` are configuration lines of each; `loss` is the share of frames that links lose."""

    def __init__(self, lab, plan, extra=(), loss=0.0):
        self.lab, self.plan, self.extra, self.loss = lab, plan, extra, loss
        self.crew, self.watch, self.feed = Crew(), Watch(plan.peer), None
        self.switches, self.world, self.plugs = {}, None, {}
        self.down, self.dead, self.ends, self._losing = set(), set(), [], []

    def make(self, done):
        """Namespaces, links, ears. Nothing runs yet."""
        def switch(number):
            self.switches[number] = self.lab.switch(f"s{number}", config=self.plan.config(number, self.extra))
        self.world = self.lab.node("world", board=None)
        self.crew.each(switch, range(self.plan.count), done)

        def index(end, odd):  # the ends of a link must not have the same one
            return 10 + 2 * self.plan.ports[end[0]].index(end[1]) + odd if end[0] != WORLD else 201 + ord(end[1][0])
        self.lab.links([(self.node(one[0]), one[1], index(one, 0), self.node(other[0]), other[1], index(other, 1))
                        for one, other in self.plan.wires])
        loaded = lossy.program(self.loss) if self.loss else None

        def prepare(number):
            ports = [end[1] for end in self.plan.peer if end[0] == number]
            if loaded is not None:
                self._losing += lossy.drop(self.node(number), ports, loaded)
            self.watch.add(number, self.node(number))
            self.node(number).ip_batch([f"link set {port} up" for port in ports])
        self.crew.each(prepare, [WORLD, *range(self.plan.count)])
        self.watch.start()
        self.feed = Feed(self.world)

    def node(self, number):
        return self.world if number == WORLD else self.switches[number]

    def start_switch(self, number):
        switch = self.switches[number]
        switch.start_nsmd(*NSMD_OPTIONS)
        switch.start_esmcd(wait=False)
        wait_until(lambda: switch.path("/run/esmcd.vty").exists() or not switch.esmcd.alive(), 30,
                   f"{switch.name}: esmcd listens")
        if not switch.esmcd.alive():
            raise RuntimeError(f"{switch.name}: esmcd ended: {switch.esmcd.text()[-500:]}")

    def start_relay(self, number):
        """A bare loop in the daemons' place: it passes on what it hears, and decides nothing."""
        switch = self.switches[number]
        switch.spawn("relay", [f"{BIN}/bare_relay", *self.plan.ports[number]]).expected_status = -signal.SIGTERM

    def relayed_ms(self, beats):
        """How long each of so many PDUs of the master took from the chain's first switch to its far end."""
        heard, reached = (self.watch.lines[end].times for end in ((0, "pf"), (WORLD, "t1")))
        for beat in range(1, beats + 1):
            before = len(reached)
            def passed():
                self.watch.drain()
                return len(reached) > before
            self.feed.set(True)
            wait_until(passed, 10, f"PDU {beat} reaches the far end", 0.05)
        return [(last - first) / 1e6 for first, last in zip(heard[-beats:], reached[-beats:])]

    def refuses(self, lines):
        """The first of the lines that the daemon of switch 0 refuses, with what it says; None: it takes all."""
        for line in lines:
            reply = self.switches[0].cli("configure terminal", line, check=False)
            if reply.status != 0:
                return f"{line}: {(reply.err or reply.out).strip()}"
        return None

    def start(self, done):
        self.crew.each(self.start_switch, [number for number in self.switches if not self.switches[number].esmcd], done)

    def set_link(self, number, up):
        """Plugs or pulls the cable at the first end of the plan's link of this number (-1: of the feed). Returns when."""
        wire = self.plan.wires[number if number >= 0 else len(self.plan.links)]
        if wire not in self.plugs:
            self.plugs[wire] = Plug(self.node(wire[0][0]), wire[0][1])
        when = now()
        self.plugs[wire].set(up)
        if up:
            self.down.discard(wire)
        else:
            self.down.add(wire)
            self.watch.forget(set(wire))
            self.ends += [(when, end) for end in wire]
        return when

    def kill(self, number):
        """Both daemons at once, as a loss of power would; the links stay up. Returns when."""
        switch = self.switches[number]
        when = now()
        for process in (switch.esmcd, switch.nsmd):
            process.kill()
        self.dead.add(number)
        self.ends += [(when, (number, port)) for port in self.plan.ports[number]]
        return when

    def take_ends(self):
        taken, self.ends = self.ends, []
        return taken

    def alive(self):
        return [number for number in self.switches if number not in self.dead]

    def fed(self):
        """The switches that hang together with the master, through links and switches that work."""
        if not self.feed.talks or any(wire[0] == (WORLD, "m1") for wire in self.down) or 0 in self.dead:
            return set()
        return set(distances(self.plan.count, [
            link for link, wire in zip(self.plan.links, self.plan.wires)
            if wire not in self.down and not self.dead.intersection(link)]))

    def shown(self, read):
        """What each living switch shows, by `read` (a function of a switch)."""
        alive = self.alive()
        return dict(zip(alive, self.crew.each(lambda number: read(self.switches[number]), alive)))

    def standing_loops(self, shown):
        """Loops among the sources that the switches show."""
        follows = Follows(self.plan.peer)
        for number, clock in shown.items():
            follows.set(0, number, clock["source"])
        return [loop.members for loop in follows.loops if loop.ended is None]

    def pids(self):
        return [process.pid for number in self.alive() for process in self.switches[number].processes]

    def stop(self):
        """Takes everything down; returns what did not end well."""
        if self.feed:
            self.feed.stop()
        self.watch.stop()
        for descriptor in self._losing:
            os.close(descriptor)
        found = self.lab.stop(self.crew.each)
        self.crew.pool.shutdown()
        return found
