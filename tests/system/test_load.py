"""One port flooded for seconds at the rate that this machine can make: nobody else may feel it."""

import contextlib
import multiprocessing
import re
import socket
import time

import pytest
from lab import BIN
from test_terminals import spawn, tell
from watch import process_status
from wire import PRC, SSU_A, Neighbour, assert_on_time, esmc

SECONDS = 6

FLOODS = {
    "valid": [esmc(SSU_A)],
    "invalid": [esmc(5), esmc(0xFF), esmc(PRC)[:30], esmc(3, event=True)],
    "alternating": [esmc(PRC), esmc(SSU_A)],
    "alternating events": [esmc(PRC, event=True), esmc(SSU_A, event=True)],
}


def flood(port, frames, going, sent):
    """A process of its own sends the frames in turn, as fast as it can."""
    while going.is_set():
        for frame in frames * 100:
            with contextlib.suppress(OSError):
                sent.value += port.socket.send(frame) > 0


@pytest.mark.parametrize("kind", FLOODS)
def test_flooded_port_is_felt_by_nobody_else(enabled, release_only, kind, late):
    enabled.configure("hostname sw")
    source = Neighbour(enabled.t2, PRC)
    enabled.wait_clock(source="p2")
    enabled.t2.drain()
    terminal = spawn(enabled, [f"{BIN}/esmcsh"])
    terminal.expect("sw#")

    frames, answers, resident = [], [], []
    machine = late(enabled.esmcd.pid)
    going, sent = multiprocessing.Event(), multiprocessing.RawValue("L")
    going.set()
    flooding = multiprocessing.Process(target=flood, args=(enabled.t1, FLOODS[kind], going, sent))
    flooding.start()
    try:
        end, ask = time.monotonic() + SECONDS, 0.0
        while time.monotonic() < end:
            source.keep()
            frames += enabled.t2.frames(0.05)
            if time.monotonic() > ask:
                asked = time.monotonic()
                tell(terminal, "show clock synce p1\r", "Send quality", "sw#")
                answers.append(time.monotonic() - asked)
                resident.append(int(process_status(enabled.esmcd.pid)["VmRSS"].split()[0]))
                ask = time.monotonic() + 0.2
    finally:
        going.clear()
        flooding.join()
        terminal.close()

    grown = resident[-1] - resident[4]  # the first answers touch pages that no flood has to do with
    print(f"{kind}: {sent.value / SECONDS:.0f} frames/s; {len(answers)} answers, the slowest in "
          f"{max(answers) * 1000:.1f} ms; memory +{grown} KiB")
    assert sent.value > SECONDS * 10_000, "that was no flood"
    assert_on_time(frames, SECONDS - 2, machine.late)
    assert max(answers) <= 0.100 + machine.late, answers
    assert grown <= 64
    assert " dropped 0\n" not in enabled.show("slow-protocols")


def test_a_pdu_overtakes_a_full_queue(enabled):
    """1 Mbit/s behind seconds of traffic: what all ports say at once is on this link at once as well."""
    shaped = enabled.run("sh", "-c", "tc qdisc add dev p1 root handle 1: tbf rate 1mbit burst 4kb limit 10mb && "
                         "tc qdisc add dev p1 parent 1:1 pfifo_fast", check=False)
    if shaped.returncode:
        pytest.skip(f"this kernel can't shape a link: {shaped.stderr.strip()}")
    filler = enabled.packet_socket("p1")
    filler.setsockopt(socket.SOL_SOCKET, 32, 64 << 20)  # SO_SNDBUFFORCE
    filler.setblocking(False)
    with contextlib.suppress(OSError):  # until the queue is full
        while True:
            filler.send(esmc(PRC)[:12] + bytes([0x88, 0xB5]) + bytes(1486))
    waiting = int(re.search(r"qlen (\d+)|backlog \S+ (\d+)p", enabled.run("tc", "-s", "qdisc", "show", "dev", "p1").stdout)[2])
    assert waiting > 600, "more than seven seconds of it"
    enabled.t2.send(esmc(PRC))
    assert enabled.t1.expect(5, event=True, quality=PRC)
