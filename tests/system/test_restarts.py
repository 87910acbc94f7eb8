"""Programs that are killed, stopped and started again: what the neighbours see, and what the clock does.

The clock is simulated, with registers in a file that outlives nsmd as hardware would: `registers` reads them
without asking any program."""

import os
import random
import signal
import time

import pytest
from lab import wait_until
from watch import Watch, status_of
from wire import DNU, PRC

pytestmark = pytest.mark.timing

STATE_FILE = "/run/clock"
HOLDOVER, LOCKED = (3, 0), (4, 10)  # state and source: p1 has the index 10
REQUESTS = ["request: SyncE enabled on the switch", "request: the clock source is port 10 (p1)"]


def start_nsmd(switch, grace_s=10):
    return switch.start_nsmd("--port", "p*", "--dpll", "sim", "--sim-lock-ms", "50", "--sim-state", STATE_FILE,
                             "--grace-s", str(grace_s))


def registers(switch):
    """(state, source) of the clock; None in the moment between two writes."""
    words = switch.path(STATE_FILE).read_text().split()
    return (int(words[0]), int(words[1])) if len(words) == 6 else None


def settle(switch):
    switch.wait_clock(source="p1", quality="PRC", state="Lock", dpll="Lock")
    wait_until(lambda: registers(switch) == LOCKED, what="the clock is locked to p1")


def wait_holdover(switch):
    wait_until(lambda: registers(switch) == HOLDOVER, what="holdover", interval=0.001)


@pytest.fixture
def watch(configured, request):
    """A neighbour that says PRC to p1 of a switch that follows it, and hears what the switch says from then on."""
    with Watch(configured.lab.tester) as made:
        start_nsmd(configured, getattr(request, "param", 10))
        made.pid = configured.start_esmcd().pid
        settle(configured)
        for frames in made.seen.values():
            wait_until(lambda: frames and frames[-1].quality in (PRC, DNU))
            frames.clear()
        yield made


def grace_s(seconds):
    return pytest.mark.parametrize("watch", [seconds], indirect=True, ids=[f"grace {seconds} s"])


def requests_of(text):
    return [line.split(" info ", 1)[1] for line in text.splitlines() if " request" in line]


def test_sixty_kills_of_nsmd_go_unnoticed(linked, watch):
    """At any moment of its life, the very beginning included, or a clean end. Frames on time, nothing said but the
    truth, the clock told the same again and never moved."""
    switch, rounds = linked, 25 if linked.lab.sanitized else 60
    seed = int(os.environ.get("ESMC_SEED") or time.time_ns() % 1000000)
    print("ESMC_SEED", seed)
    chance = random.Random(seed)
    before, connected, stated = switch.show("clock synce"), 0, 0
    for turn in range(rounds):
        # While it starts; while it is told everything again, and right after; whenever; once it has been told.
        said, longest = [("", 0.04), ("connected", 0.02), ("", 0.7), (REQUESTS[-1], 0.02)][turn % 4]
        switch.nsmd.wait_log(said)
        time.sleep(chance.uniform(0, longest))
        if turn == rounds // 2:
            switch.nsmd.wait_log("serves")
            assert switch.nsmd.stop() == 0 and not switch.path("/run/nsmd.sock").exists()
            time.sleep(2.5)  # periods without nsmd
        else:
            switch.nsmd.kill()
        life = switch.nsmd.text()
        made = requests_of(life)
        assert made == REQUESTS[:len(made)], (turn, life)
        assert switch.nsmd.complaints() == [], (turn, life)
        assert life.count("clock: locked, source 10") == life.count("clock:"), life
        assert registers(switch) == LOCKED, (turn, life)
        connected += "connected" in life
        stated += made == REQUESTS
        start_nsmd(switch)
    switch.nsmd.wait_log(REQUESTS[-1])
    wait_until(lambda: "clients: 1 connected" in status_of(switch))
    assert switch.show("clock synce") == before
    print(f"{rounds} kills; {connected} lives with esmcd connected, in {stated} all was stated again")
    assert connected >= rounds // 2 and stated >= rounds // 4
    time.sleep(1.2)  # one more period, so that a frame that was left out would show
    watch.assert_undisturbed({"t1": DNU, "t2": PRC}, 0.1 if linked.lab.sanitized else 0.020)


@grace_s(2)
@pytest.mark.parametrize("both", [False, True], ids=["esmcd", "nsmd and esmcd"])
def test_killed_programs_are_back_within_the_grace_time_and_the_clock_never_moves(linked, watch, both):
    for process in [linked.nsmd, linked.esmcd] if both else [linked.esmcd]:
        process.kill()
    assert registers(linked) == LOCKED
    began = time.monotonic()
    linked.start_esmcd()
    if both:
        start_nsmd(linked, 2)
    limit = 6 if linked.lab.sanitized else 1.5 + watch.late
    took = max(wait_until(lambda: watch.first(port, lambda frame: frame.when > began), what=port + " hears").when
               for port in ("t1", "t2")) - began
    print(f"esmcd sends {took * 1000:.0f} ms after its start")
    assert took <= limit
    for port, priority in (("p1", "10"), ("p2", "20")):
        linked.wait_port(port, up="enable", synce="enable", priority=priority)
    settle(linked)
    linked.nsmd.wait_log(REQUESTS[-1], count=1 if both else 2)
    assert requests_of(linked.nsmd.text()) == REQUESTS * (1 if both else 2)
    while time.monotonic() < began + 2.5:  # the grace time passes without any effect
        assert registers(linked) in (None, LOCKED)
        time.sleep(0.02)
    assert "holdover" not in linked.nsmd.text(), "the clock was held over at some time"
    assert "unwatched" not in status_of(linked)


@grace_s(2)
@pytest.mark.parametrize("why, early, late", [
    ("the daemon was stopped", 0, 0.2), ("no daemon watches the quality", 1.95, 2.2),
    ("the daemon has not chosen a source", 1.95, 2.2)])
def test_clock_goes_to_holdover_at_once_or_when_nobody_chooses_in_the_grace_time(linked, watch, why, early, late):
    watch.feeding.clear()
    began = time.monotonic()
    if early:
        linked.esmcd.kill()
    else:
        linked.esmcd.send(signal.SIGTERM)
    if "chosen" in why:
        linked.start_esmcd()
    wait_holdover(linked)
    took = time.monotonic() - began
    print(f"holdover after {took:.2f} s, grace time 2 s")
    assert early <= took <= late + (1.8 if linked.lab.sanitized else watch.late), took
    linked.nsmd.wait_log(f"{why}: the clock goes to holdover")
    assert "unwatched" in status_of(linked)
    # Who comes back and chooses has it follow again.
    if "chosen" not in why:
        linked.esmcd.wait()
        linked.start_esmcd()
    watch.feeding.set()
    settle(linked)
    assert "unwatched" not in status_of(linked)
