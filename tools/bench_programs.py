"""What the programs themselves need, for bench/run: memory, an idle second, start. Real processes in namespaces.

Memory is measured with every port up, enabled and sending; resident counts the pages of libc too, which other programs
share, "own" are those that nobody shares. The programs that are linked statically against libc are measured beside.
"""

import os
import pathlib
import re
import signal
import tempfile
import threading
import time

from lab import Lab, wait_until

PORTS = (0, 16, 255)
IDLE_SECONDS = 5
STARTS = 7
FRAME = bytes.fromhex("0180c2000002" "020000000099" "8809" "0a0019a70001" "10000000" "01000402").ljust(60, b"\0")


def status_kib(pid, key):
    return int(re.search(rf"^{key}:\s+(\d+)", pathlib.Path(f"/proc/{pid}/status").read_text(), re.M).group(1))


def running_ns(pid):
    return int(pathlib.Path(f"/proc/{pid}/schedstat").read_text().split()[0])


def switch_with(lab, count):
    """A switch with `count` enabled ports, and the node at their other ends."""
    switch, far = lab.switch("bench"), lab.node("far", board=None)
    names = range(1, count + 1)
    if count:
        switch.ip_batch([f"link add d{n} index {n + 9} type veth peer name e{n} netns {far.pid}" for n in names] +
                        [f"link set d{n} up" for n in names])
        far.ip_batch([f"link set e{n} up" for n in names])
    switch.start_nsmd("--port", "d*", "--dpll", "sim")
    switch.start_esmcd()
    wait_until(lambda: switch.show("running-config").count("interface d") == count, 20, "all ports are bound")
    lines = ["configure terminal", "clock synce global-enable", "clock synce ssm enable"]
    for n in names:
        lines += [f"interface d{n}", "clock synce enable", "exit"]
    switch.run("/run/esmc-bin/esmcsh", stdin=None, input="\n".join(lines) + "\n")
    if count:
        wait_until(lambda: switch.port(f"d{count}").get("Send quality") == "DNU", 5, "the last port sends")
    return switch, far


class Neighbours:
    """Every far end speaks once a second, spread evenly, until stop()."""

    def __init__(self, far, count):
        self.sockets = [far.packet_socket(f"e{n}") for n in range(1, count + 1)]
        self.going = True
        self.thread = threading.Thread(target=self.speak)
        self.thread.start()

    def speak(self):
        while self.going:
            for one in self.sockets:
                one.send(FRAME)
                time.sleep(1 / len(self.sockets))

    def stop(self):
        self.going = False
        self.thread.join()
        for one in self.sockets:
            one.close()


def footprint(lab, count):
    switch, far = switch_with(lab, count)
    pid, neighbours = switch.esmcd.pid, Neighbours(far, count) if count else None
    time.sleep(2)
    before, began = running_ns(pid), time.monotonic()
    time.sleep(IDLE_SECONDS)
    share = (running_ns(pid) - before) / (time.monotonic() - began) / 1e9
    if neighbours:
        neighbours.stop()
    resident, own = status_kib(pid, "VmRSS"), status_kib(pid, "RssAnon")
    lab.stop()
    return resident, own, share


def start_ms(lab):
    """From execve to the first read of the packet socket, at which a frame waits: the median of some starts. Traced
    with a filter that stops at these calls only, so slightly longer than without."""
    switch, far = lab.switch("bench"), lab.node("far", board=None)
    lab.link(switch, "d1", far, "e1")
    switch.start_nsmd("--port", "d*", "--dpll", "sim")
    speaker = far.packet_socket("e1")
    took = []
    for attempt in range(STARTS):
        trace = switch.path(f"/run/trace{attempt}")
        traced = switch.spawn("traced", ["strace", "-f", "--seccomp-bpf", "-ttt", "-e", "trace=execve,recvmmsg,recvfrom",
                                         "-o", f"/run/trace{attempt}", "/run/esmc-bin/esmcd"])

        def first_read():
            speaker.send(FRAME)
            lines = trace.read_text().splitlines() if trace.exists() else []
            found = [line for line in lines if re.search(r"recv\w+\(.*AF_PACKET", line)]
            return (lines[0], found[0]) if found else None

        lines = wait_until(first_read, 5, "esmcd reads its packet socket", interval=0.0005)
        began, read = (float(line.split()[1]) for line in lines)
        took.append((read - began) * 1e3)
        os.kill(int(lines[0].split()[0]), signal.SIGTERM)  # the tracer ends with it
        traced.wait()
    speaker.close()
    lab.stop()
    return sorted(took)[len(took) // 2]


def measure(build):
    """Yields (name, value, unit, goal or None)."""
    static = build.parent / "static"
    with tempfile.TemporaryDirectory() as logs:
        for count in PORTS:
            resident, own, share = footprint(Lab(logs, build), count)
            yield f"resident memory, {count} ports", resident, "KiB", 2048 if count == 255 else None
            yield f"own of it, {count} ports", own, "KiB", None
            if (static / "bin").is_dir():
                resident, own, _ = footprint(Lab(logs, static), count)
                yield f"resident memory, {count} ports, static", resident, "KiB", 2048 if count == 255 else None
                yield f"own of it, {count} ports, static", own, "KiB", None
            yield f"share of a processor, {count} ports", share * 100, "%", None
        yield "start to first socket read", start_ms(Lab(logs, build)), "ms", 10
