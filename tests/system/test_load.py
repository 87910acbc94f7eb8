"""One port flooded for ten seconds at the rate that this machine can make: nobody else may feel it."""

import os
import signal
import time

import pytest
from lab import BIN
from test_terminals import spawn, tell
from wire import PRC, SSU_A, Port, Neighbour, esmc

SECONDS = 10

ENABLE = ["clock synce global-enable", "clock synce ssm enable", "interface p1", "clock synce enable", "exit",
          "interface p2", "clock synce enable", "exit"]

FLOODS = {
    "valid": [esmc(SSU_A)],
    "invalid": [esmc(5), esmc(0xFF), esmc(PRC)[:30], esmc(3, event=True)],
    "alternating": [esmc(PRC), esmc(SSU_A)],
    "alternating events": [esmc(PRC, event=True), esmc(SSU_A, event=True)],
}


class Flood:
    """A process of its own that sends the frames in turn, as fast as it can, until it is stopped."""

    def __init__(self, port, frames):
        self.reader, writer = os.pipe()
        self.pid = os.fork()
        if self.pid:
            os.close(writer)
            return
        going = [True]
        signal.signal(signal.SIGTERM, lambda *_: going.clear())
        sent = 0
        while going:
            for frame in frames:
                try:
                    port.socket.send(frame)
                    sent += 1
                except OSError:
                    pass
        os.write(writer, str(sent).encode())
        os._exit(0)

    def stop(self):
        os.kill(self.pid, signal.SIGTERM)
        sent = int(os.read(self.reader, 32))
        os.waitpid(self.pid, 0)
        os.close(self.reader)
        return sent


def resident_kib(pid):
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        return int(next(line for line in status if line.startswith("VmRSS")).split()[1])


@pytest.mark.parametrize("kind", FLOODS)
def test_flooded_port_is_felt_by_nobody_else(switch, release_only, kind):
    flooded, watched = Port(switch.lab.tester, "t1"), Port(switch.lab.tester, "t2")
    switch.configure("hostname sw", *ENABLE)
    switch.wait_port("p2", up="enable")
    source = Neighbour(watched, PRC)
    switch.wait_clock(source="p2")
    watched.drain()
    terminal = spawn(switch, [f"{BIN}/esmcsh"])
    terminal.expect("sw#")

    times, answers, resident = [], [], []
    flood = Flood(flooded, FLOODS[kind])
    try:
        end, ask = time.monotonic() + SECONDS, 0.0
        while time.monotonic() < end:
            source.keep()
            times += [seen.when for seen in watched.frames(0.05) if not seen.event]
            if time.monotonic() > ask:
                asked = time.monotonic()
                tell(terminal, "show clock synce p1\r", "Send quality", "sw#")
                answers.append(time.monotonic() - asked)
                resident.append(resident_kib(switch.esmcd.pid))
                ask = time.monotonic() + 0.2
    finally:
        sent = flood.stop()
        terminal.close()

    gaps = [after - before_it for before_it, after in zip(times, times[1:])]
    grown = resident[-1] - resident[4]  # the first answers touch pages that no flood has to do with
    print(f"{kind}: {sent / SECONDS:.0f} frames/s; gaps {min(gaps) * 1000:.1f} to {max(gaps) * 1000:.1f} ms; "
          f"{len(answers)} answers, the slowest in {max(answers) * 1000:.1f} ms; memory +{grown} KiB")
    assert sent > SECONDS * 10_000, "that was no flood"
    assert len(gaps) >= SECONDS - 2
    assert all(abs(gap - 1) <= 0.020 for gap in gaps), gaps
    assert max(answers) <= 0.100, answers
    assert grown <= 64
    counted = switch.cli("show slow-protocols").out
    assert " dropped 0\n" not in counted, counted
