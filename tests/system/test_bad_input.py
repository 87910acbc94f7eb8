"""Frames of any length and content, floods, and whatever else a neighbour or the host may do to a switch."""

import random
import time

import pytest
from lab import wait_until
from wire import EEC1, PRC, SSU_A, SSU_B, Neighbour, Port, esmc

ENABLE = ["clock synce global-enable", "clock synce ssm enable", "interface p1", "clock synce enable", "exit",
          "interface p2", "clock synce enable", "exit"]


@pytest.fixture
def wired(switch):
    switch.t1, switch.t2 = Port(switch.lab.tester, "t1"), Port(switch.lab.tester, "t2")
    switch.configure(*ENABLE)
    switch.wait_port("p2", up="enable")
    return switch


@pytest.mark.parametrize("debug", [False, True])
def test_frames_of_any_length_and_content(wired, debug):
    """With debugging on as well: the dumps read every octet that they print."""
    if debug:
        wired.cli("debug ssm all")
    wired.configure("clock synce ssm extend", "slow-protocols rate-limit off")
    chance = random.Random(2)
    good = esmc(PRC, extension=(bytes(range(8)), 255))
    for round_number in range(1500):
        frame = bytearray(good)
        for _ in range(chance.randrange(6)):
            frame[chance.randrange(14, len(frame))] = chance.randrange(256)
        frame[14] = 0x0A
        cut = bytes(frame[:chance.choice([15, 16, 20, 26, 27, 28, 40, 60])])
        if round_number % 10 == 0:
            cut += bytes(chance.randrange(1, 1400))
        wired.t1.send(cut)
    wired.t2.send(esmc(PRC, event=True))
    wired.wait_port("p2", 5, rx="PRC")
    assert wired.esmcd.alive()
    if debug:
        wired.cli("no debug ssm all")


def test_flood_on_one_port_leaves_the_other_on_time(wired):
    """Valid frames at full rate into p1 for three seconds: p2's frames keep their second, the shell answers, and
    a frame on p2 is still heard."""
    flood, end, sent = esmc(SSU_A), time.monotonic() + 3, 0
    wired.t2.drain()
    times, replies = [], []
    next_question = 0.0
    while time.monotonic() < end:
        for _ in range(200):
            try:
                wired.t1.send(flood)
                sent += 1
            except OSError:
                break
        times += [seen.when for seen in wired.t2.frames(0.001) if not seen.event]
        if time.monotonic() > next_question:
            began = time.monotonic()
            wired.clock()
            replies.append(time.monotonic() - began)
            next_question = time.monotonic() + 0.5
    wired.t2.send(esmc(PRC))
    wired.wait_clock(source="p2", quality="PRC")
    gaps = [later - earlier for earlier, later in zip(times, times[1:])]
    assert sent > 3000 and len(gaps) >= 1
    assert all(0.9 < gap < 1.3 for gap in gaps), (sent, gaps)
    assert max(replies) < (3.0 if wired.lab.sanitized else 0.8), replies


def test_flood_of_changing_qualities(wired):
    """Each frame is a change of the clock: the worst that a neighbour can do, with nothing held back."""
    wired.configure("slow-protocols rate-limit off")
    for number in range(4000):
        wired.t1.send(esmc((PRC, SSU_A, SSU_B, EEC1)[number % 4], event=number % 3 == 0))
        if number % 500 == 0:
            wired.t2.drain()
    wired.t1.send(esmc(SSU_B))
    wired.wait_clock(5, source="p1", quality="SSU-B")
    began = time.monotonic()
    assert wired.esmcd.stop() == 0
    assert time.monotonic() - began < (3.0 if wired.lab.sanitized else 0.2)


def test_signal_is_obeyed_under_flood(wired):
    import signal
    import threading
    stop = threading.Event()

    def flood():
        frame = esmc(SSU_A)
        while not stop.is_set():
            try:
                wired.t1.send(frame)
            except OSError:
                pass
    thread = threading.Thread(target=flood)
    thread.start()
    try:
        wired.wait_clock(source="p1")
        began = time.monotonic()
        wired.esmcd.send(signal.SIGTERM)
        assert wired.esmcd.wait() == 0
        took = time.monotonic() - began
    finally:
        stop.set()
        thread.join()
    assert took < (3.0 if wired.lab.sanitized else 0.25), f"{took * 1000:.0f} ms"


def test_links_that_flap(wired):
    """Forty quick flaps of the source: in the end the daemon sees the link as it is."""
    neighbour = Neighbour(wired.t1, PRC)
    wired.wait_clock(source="p1")
    for _ in range(40):
        wired.lab.tester.link_set("t1", False)
        wired.lab.tester.link_set("t1", True)
    wired.wait_port("p1", 5, up="enable")
    neighbour.last = 0
    wait_until(lambda: neighbour.keep() and wired.clock()["Current selected interface"] == "p1", 5, "p1 is the source again")
    wired.lab.tester.link_set("t1", False)
    wired.wait_port("p1", 5, up="disable")
    wired.wait_clock(state="Holdover")


def test_ports_that_come_and_go(wired):
    for number in range(3, 23):
        wired.lab.link(wired, f"p{number}", wired.lab.tester, f"t{number}")
    wired.wait_port("p22", 5, up="enable")
    wired.ip_batch([f"link del p{number}" for number in range(3, 23)])
    wait_until(lambda: all(wired.port(f"p{n}") == {} for n in (3, 12, 22)), 5, "all are gone")
    for number in range(3, 13):
        wired.lab.link(wired, f"p{number}", wired.lab.tester, f"t{number}")
    wired.wait_port("p12", 5, up="enable", synce="disable")
    assert wired.port("p1")["Synce enable"] == "enable"


def test_renamed_port(wired):
    wired.ip_batch(["link set p2 down", "link set p2 name p7", "link set p7 up"])
    wired.wait_port("p7", 5, up="enable")
    assert wired.port("p2") == {}


def test_nsmd_restarts_unseen(wired):
    """A clock that outlives nsmd, as hardware does, and a nsmd that is killed three times: no neighbour notices."""
    options = ("--port", "p*", "--dpll", "sim", "--sim-state", "/run/clock")
    wired.nsmd.stop()
    wired.start_nsmd(*options)
    neighbour = Neighbour(wired.t1, PRC)
    wired.wait_clock(source="p1", quality="PRC", dpll="Lock")
    wired.t2.expect(2, quality=PRC)
    wired.t2.drain()
    seen = []
    for _ in range(3):
        wired.nsmd.kill()
        neighbour.keep()
        wired.start_nsmd(*options)
        neighbour.keep()
        for _ in range(4):
            seen += list(wired.t2.frames(0.3))
            neighbour.keep()
    wired.wait_clock(3, source="p1", quality="PRC", dpll="Lock")
    assert {(frame.quality, frame.event) for frame in seen} == {(PRC, False)}, "a neighbour noticed"
    assert len(seen) >= 3
