"""Programs that are killed, stopped and started again: what the neighbours see, and what the clock does.

The clock is simulated, with registers in a file that outlives nsmd as hardware would: `registers` reads them
without asking any program."""

import os
import random
import signal
import time

import pytest
import ring
from lab import wait_until
from watch import Watch, status_of
from wire import DNU, PRC

pytestmark = pytest.mark.timing

STATE_FILE = "/run/clock"
HOLDOVER, LOCKED = 3, 4
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
    wait_until(lambda: registers(switch) == (LOCKED, 10), 3, "the clock is locked to p1")


def wait_holdover(switch):
    wait_until(lambda: registers(switch) == (HOLDOVER, 0), 4, "holdover", interval=0.001)


def settled(switch, watch, grace_s):
    """Lets the switch follow p1 and forgets what it said before it did."""
    start_nsmd(switch, grace_s)
    switch.start_esmcd()
    settle(switch)
    for frames in watch.seen.values():
        wait_until(lambda: frames and frames[-1].quality in (PRC, DNU), 3)
        frames.clear()


@pytest.fixture
def watch(linked, request):
    """A neighbour that says PRC to p1 of a switch that follows it, and hears what the switch says."""
    linked.path("/etc/esmcd.conf").write_text(ring.CONFIG["B"])
    with Watch(linked.lab.tester) as made:
        settled(linked, made, getattr(request, "param", 10))
        yield made


def grace_s(seconds):
    return pytest.mark.parametrize("watch", [seconds], indirect=True, ids=[f"grace {seconds} s"])


def requests_of(text):
    return [line.split(" info ", 1)[1] for line in text.splitlines() if " request" in line]


def complaints_of(text):
    return [line for line in text.splitlines() if " warning " in line or " error " in line]


def assert_undisturbed(lab, watch):
    time.sleep(1.2)  # one more period, so that a frame that was left out would show
    watch.end()
    watch.assert_undisturbed({"t1": DNU, "t2": PRC}, 0.1 if lab.sanitized else 0.020)


def test_hundred_kills_of_nsmd_go_unnoticed(linked, watch):
    """At any moment of its life, the very beginning included. Frames on time, nothing said but the truth, the
    clock told the same again and never moved."""
    switch, lab = linked, linked.lab
    rounds = 25 if lab.sanitized else 100
    seed = int(os.environ.get("ESMC_SEED") or time.time_ns() % 1000000)
    print("ESMC_SEED", seed)
    chance = random.Random(seed)
    before, connected, stated = switch.show("clock synce"), 0, 0
    for turn in range(rounds):
        way = turn % 4
        if way == 0:  # while it starts
            time.sleep(chance.uniform(0, 0.04))
        elif way == 1:  # while it is told everything again, and right after
            switch.nsmd.wait_log("connected", 5)
            time.sleep(chance.uniform(0, 0.02))
        elif way == 2:  # whenever
            time.sleep(chance.uniform(0, 0.7))
        else:  # once it has been told
            switch.nsmd.wait_log(REQUESTS[-1], 5)
            time.sleep(chance.uniform(0, 0.02))
        switch.nsmd.kill()
        life = switch.nsmd.text()
        made = requests_of(life)
        assert made == REQUESTS[:len(made)], (turn, life)
        assert complaints_of(life) == [], (turn, life)
        assert life.count("clock: locked, source 10") == life.count("clock:"), life
        assert registers(switch) == (LOCKED, 10), (turn, life)
        connected += "connected" in life
        stated += made == REQUESTS
        start_nsmd(switch)
    switch.nsmd.wait_log(REQUESTS[-1], 5)
    wait_until(lambda: "clients: 1 connected" in status_of(switch), 3)
    assert switch.show("clock synce") == before
    print(f"{rounds} kills; {connected} lives with esmcd connected, in {stated} all was stated again")
    assert connected >= rounds // 2 and stated >= rounds // 4
    assert_undisturbed(lab, watch)


def test_clean_end_of_nsmd_leaves_clock_and_neighbours_alone(linked, watch):
    linked.nsmd.stop()
    assert not linked.path("/run/nsmd.sock").exists()
    time.sleep(3)  # three periods without nsmd
    assert registers(linked) == (LOCKED, 10)
    start_nsmd(linked)
    linked.nsmd.wait_log(REQUESTS[-1], 3)
    assert requests_of(linked.nsmd.text()) == REQUESTS
    settle(linked)
    assert_undisturbed(linked.lab, watch)


def test_link_lost_while_nsmd_was_away_is_known_at_its_return(linked, watch):
    linked.nsmd.kill()
    watch.feeding.clear()
    linked.lab.tester.link_set("t1", False)
    linked.wait_clock(3, source="p1")
    start_nsmd(linked)
    linked.wait_clock(3, source="N/A", state="Holdover")
    wait_holdover(linked)
    linked.wait_port("p1", up="disable", priority="10")


def assert_sends_again(switch, watch, began):
    """Both ports are bound, configured and send soon after esmcd's start."""
    limit = 6 if switch.lab.sanitized else 1.5 + watch.lateness.worst
    wait_until(lambda: all(watch.first_after(port, began) for port in ("t1", "t2")), limit + 3, "both ports send")
    took = max(watch.first_after(port, began).when for port in ("t1", "t2")) - began
    print(f"esmcd sends {took * 1000:.0f} ms after its start")
    assert took <= limit
    for port, priority in (("p1", "10"), ("p2", "20")):
        switch.wait_port(port, up="enable", synce="enable", priority=priority)


@grace_s(2)
@pytest.mark.parametrize("both", [False, True], ids=["esmcd", "nsmd and esmcd"])
def test_killed_programs_are_back_within_the_grace_time_and_the_clock_never_moves(linked, watch, both):
    for process in [linked.nsmd, linked.esmcd] if both else [linked.esmcd]:
        process.kill()
    assert registers(linked) == (LOCKED, 10)
    began = time.monotonic()
    linked.start_esmcd()
    if both:
        start_nsmd(linked, 2)
    assert_sends_again(linked, watch, began)
    settle(linked)
    linked.nsmd.wait_log(REQUESTS[-1], 3, count=1 if both else 2)
    assert requests_of(linked.nsmd.text()) == REQUESTS * (1 if both else 2)
    end = time.monotonic() + 2.5  # the grace time passes without any effect
    while time.monotonic() < end:
        assert registers(linked) in (None, (LOCKED, 10))
        time.sleep(0.02)
    assert "holdover" not in linked.nsmd.text(), "the clock was held over at some time"
    assert "unwatched" not in status_of(linked)


@grace_s(2)
@pytest.mark.parametrize("returns", [False, True], ids=["stays away", "returns and chooses nothing"])
def test_clock_goes_to_holdover_when_nobody_chooses_in_the_grace_time(linked, watch, returns):
    watch.feeding.clear()
    killed = time.monotonic()
    linked.esmcd.kill()
    if returns:
        linked.start_esmcd()
    wait_holdover(linked)
    took = time.monotonic() - killed
    print(f"holdover {took:.2f} s after the kill, grace time 2 s")
    assert 1.95 <= took <= (3.0 if linked.lab.sanitized else 2.2 + watch.lateness.worst), took
    why = "the daemon has not chosen a source" if returns else "no daemon watches the quality"
    linked.nsmd.wait_log(f"{why}: the clock goes to holdover", 1)
    assert "unwatched" in status_of(linked)
    # Who comes back and chooses has it follow again.
    if not returns:
        linked.start_esmcd()
    watch.feeding.set()
    settle(linked)
    assert "unwatched" not in status_of(linked)


def test_clean_stop_of_esmcd_holds_the_clock_at_once(linked, watch):
    asked = time.monotonic()
    linked.esmcd.send(signal.SIGTERM)
    wait_holdover(linked)
    took = time.monotonic() - asked
    linked.esmcd.wait()
    print(f"holdover {took * 1000:.1f} ms after SIGTERM")
    assert took < (2.0 if linked.lab.sanitized else 0.2 + watch.lateness.worst)
    linked.nsmd.wait_log("the daemon was stopped: the clock goes to holdover", 1)
    linked.start_esmcd()
    settle(linked)


def test_ports_keep_their_indexes_when_nsmd_is_killed(linked, watch):
    """Indexes that a fresh look at the kernel would not give: of a port made anew, and of ports beyond 255."""
    lab = linked.lab
    lab._next_index = 1000
    lab.link(linked, "p3", lab.tester, "t3")
    linked.wait_port("p3", up="enable")
    for port in ("p2", "p3"):
        linked.ip("link", "delete", port)
        wait_until(lambda: linked.port(port) == {}, 3)
        lab.link(linked, port, lab.tester, "t" + port[1:])
        linked.wait_port(port, up="enable")
        linked.configure(f"interface {port}", "clock synce priority 77", "clock synce enable")

    def indexes():
        return sorted(line.split(":")[0] for line in status_of(linked).splitlines() if line.startswith("port "))
    numbers, before = indexes(), linked.show("running-config")
    for _ in range(3):
        linked.nsmd.kill()
        start_nsmd(linked)
        linked.nsmd.wait_log(REQUESTS[-1], 3)
        assert indexes() == numbers
        assert linked.show("running-config") == before
    settle(linked)
