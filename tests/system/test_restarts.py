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
FREERUN, HOLDOVER, LOCKED = 2, 3, 4
REQUESTS = ["request: SyncE enabled on the switch", "request: the clock source is port 10 (p1)"]
CONFIG = """clock synce global-enable
clock synce ssm enable
!
interface p1
 clock synce priority 10
 clock synce enable
!
interface p2
 clock synce priority 20
 clock synce enable
!
"""


def start_nsmd(switch, grace_s=10):
    return switch.start_nsmd("--port", "p*", "--dpll", "sim", "--sim-lock-ms", "50", "--sim-state", STATE_FILE,
                             "--grace-s", str(grace_s))


def registers(switch):
    """(state, source) of the clock; None in the moment between two writes."""
    words = switch.path(STATE_FILE).read_text().split()
    return (int(words[0]), int(words[1])) if len(words) == 6 else None


def make(lab, grace_s=10):
    """A switch that follows p1, whose neighbour `watch` says PRC, and its neighbours' view."""
    switch = lab.switch("sw", config=CONFIG)
    lab.tester = lab.node("tester", board=None)
    lab.link(switch, "p1", lab.tester, "t1")
    lab.link(switch, "p2", lab.tester, "t2")
    start_nsmd(switch, grace_s)
    switch.start_esmcd()
    watch = Watch(lab.tester, fed="t1")
    try:
        settle(switch)
        for frames in watch.seen.values():
            wait_until(lambda: frames and frames[-1].quality in (PRC, DNU), 3)
    except BaseException:
        watch.end()
        raise
    return switch, watch


def settle(switch, deadline=5):
    switch.wait_clock(deadline, source="p1", quality="PRC", state="Lock", dpll="Lock")
    wait_until(lambda: registers(switch) == (LOCKED, 10), 3, "the clock is locked to p1")


def forget_beginnings(watch):
    """What the switch said before it was settled is not looked at."""
    for frames in watch.seen.values():
        frames.clear()


def requests_of(text):
    return [line.split(" info ", 1)[1] for line in text.splitlines() if " request" in line]


def complaints_of(text):
    return [line for line in text.splitlines() if " warning " in line or " error " in line]


def test_hundred_kills_of_nsmd_go_unnoticed(lab):
    """At any moment of its life, the very beginning included. Frames on time, nothing said but the truth, the
    clock told the same again and never moved."""
    rounds = 25 if lab.sanitized else 100
    seed = int(os.environ.get("ESMC_SEED") or time.time_ns() % 1000000)
    print("ESMC_SEED", seed)
    chance = random.Random(seed)
    switch, watch = make(lab)
    with watch:
        forget_beginnings(watch)
        before, connected, stated = switch.show("clock synce"), 0, 0
        began = time.monotonic()
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
            assert "clock:" not in life or life.count("clock: locked, source 10") == life.count("clock:"), life
            assert registers(switch) == (LOCKED, 10), (turn, life)
            connected += "connected" in life
            stated += made == REQUESTS
            start_nsmd(switch)
            if turn % 10 == 9:
                assert switch.show("clock synce") == before
        switch.nsmd.wait_log(REQUESTS[-1], 5)
        wait_until(lambda: "clients: 1 connected" in status_of(switch), 3)
        took = time.monotonic() - began
        time.sleep(1.2)  # one more period, so that a frame that was left out would show
        assert switch.show("clock synce") == before
        assert registers(switch) == (LOCKED, 10)
    print(f"{rounds} kills in {took:.1f} s; {connected} lives with esmcd connected, in {stated} all was stated again")
    assert connected >= rounds // 2 and stated >= rounds // 4
    assert took < (60 if not lab.sanitized else 120)
    watch.assert_undisturbed({"t1": DNU, "t2": PRC}, 0.1 if lab.sanitized else 0.020)


def test_clean_end_of_nsmd_leaves_clock_and_neighbours_alone(lab):
    switch, watch = make(lab)
    with watch:
        forget_beginnings(watch)
        switch.nsmd.stop()
        assert not switch.path("/run/nsmd.sock").exists()
        time.sleep(3)  # three periods without nsmd
        assert registers(switch) == (LOCKED, 10)
        start_nsmd(switch)
        switch.nsmd.wait_log(REQUESTS[-1], 3)
        assert requests_of(switch.nsmd.text()) == REQUESTS
        settle(switch)
        time.sleep(1.2)
    watch.assert_undisturbed({"t1": DNU, "t2": PRC}, 0.1 if lab.sanitized else 0.020)


def test_link_lost_while_nsmd_was_away_is_known_at_its_return(lab):
    switch, watch = make(lab)
    with watch:
        switch.nsmd.kill()
        watch.feeding.clear()
        lab.tester.link_set("t1", False)
        switch.wait_clock(3, source="p1")
        start_nsmd(switch)
        switch.wait_clock(3, source="N/A", state="Holdover")
        wait_until(lambda: registers(switch) == (HOLDOVER, 0), 3)
        switch.wait_port("p1", up="disable", priority="10")


def restart_esmcd(switch, watch, limit):
    """Starts esmcd and measures until both ports are bound, configured and sending."""
    began = time.monotonic()
    switch.start_esmcd(wait=False)
    wait_until(lambda: all(watch.first_after(port, began) for port in ("t1", "t2")), limit + 3, "both ports send")
    took = max(watch.first_after(port, began).when for port in ("t1", "t2")) - began
    switch.wait_shell()
    for port, priority in (("p1", "10"), ("p2", "20")):
        values = switch.port(port)
        assert (values["Port up"], values["Synce enable"], values["Port priority"]) == ("enable", "enable", priority)
    assert took <= limit, f"sending {took:.2f} s after the start"
    return took


def test_killed_esmcd_is_back_within_the_grace_time_and_the_clock_never_moves(lab):
    switch, watch = make(lab, grace_s=2)
    took = []
    with watch:
        for _ in range(2 if lab.sanitized else 5):
            switch.esmcd.kill()
            took.append(restart_esmcd(switch, watch, 6 if lab.sanitized else 1.5 + watch.lateness.worst))
            settle(switch)
        switch.nsmd.wait_log(REQUESTS[-1], 3, count=len(took) + 1)
        # The grace time of the last kill passes without any effect.
        end = time.monotonic() + 2.5
        while time.monotonic() < end:
            assert registers(switch) in (None, (LOCKED, 10))
            time.sleep(0.02)
    print("esmcd sends", " ".join(f"{seconds * 1000:.0f}" for seconds in took), "ms after its start")
    assert "holdover" not in switch.nsmd.text(), "the clock was held over at some time"
    assert "unwatched" not in status_of(switch)


def test_clock_goes_to_holdover_when_killed_esmcd_stays_away(lab):
    switch, watch = make(lab, grace_s=2)
    with watch:
        killed = time.monotonic()
        switch.esmcd.kill()
        wait_until(lambda: registers(switch) == (HOLDOVER, 0), 4, "holdover")
        took = time.monotonic() - killed
        print(f"holdover {took:.2f} s after the kill, grace time 2 s")
        assert 1.95 <= took <= (3.0 if lab.sanitized else 2.2 + watch.lateness.worst), took
        switch.nsmd.wait_log("no daemon watches the quality: the clock goes to holdover", 1)
        assert "unwatched" in status_of(switch)
        # Who comes back and chooses has it follow again.
        switch.start_esmcd()
        settle(switch)
        assert "unwatched" not in status_of(switch)


def test_esmcd_that_returns_and_chooses_nothing_does_not_stop_the_grace_time(lab):
    switch, watch = make(lab, grace_s=2)
    with watch:
        watch.feeding.clear()
        killed = time.monotonic()
        switch.esmcd.kill()
        switch.start_esmcd()
        wait_until(lambda: registers(switch) == (HOLDOVER, 0), 4, "holdover")
        assert time.monotonic() - killed >= 1.95
        switch.nsmd.wait_log("the daemon has not chosen a source: the clock goes to holdover", 1)
        watch.feeding.set()
        settle(switch)


def test_clean_stop_of_esmcd_holds_the_clock_at_once(lab):
    switch, watch = make(lab)
    with watch:
        asked = time.monotonic()
        switch.esmcd.send(signal.SIGTERM)
        wait_until(lambda: registers(switch) == (HOLDOVER, 0), 3, "holdover", interval=0.001)
        took = time.monotonic() - asked
        switch.esmcd.wait()
        print(f"holdover {took * 1000:.1f} ms after SIGTERM")
        assert took < (2.0 if lab.sanitized else 0.2 + watch.lateness.worst)
        switch.nsmd.wait_log("said goodbye", 1)
        switch.nsmd.wait_log("the daemon was stopped: the clock goes to holdover", 1)
        switch.start_esmcd()
        settle(switch)


@pytest.mark.parametrize("first", ["nsmd", "esmcd"])
def test_both_killed_and_restarted(lab, first):
    switch, watch = make(lab, grace_s=3)
    with watch:
        for process in (switch.nsmd, switch.esmcd):
            process.send(signal.SIGKILL)
            process.kill()
        assert registers(switch) == (LOCKED, 10)
        limit = 6 if lab.sanitized else 1.5 + watch.lateness.worst
        if first == "nsmd":
            start_nsmd(switch, 3)
            took = restart_esmcd(switch, watch, limit)
        else:
            began = time.monotonic()
            switch.start_esmcd()
            start_nsmd(switch, 3)
            wait_until(lambda: all(watch.first_after(port, began) for port in ("t1", "t2")), 5, "both ports send")
            took = max(watch.first_after(port, began).when for port in ("t1", "t2")) - began
            assert took <= limit
        settle(switch)
        switch.nsmd.wait_log(REQUESTS[-1], 3)
        assert requests_of(switch.nsmd.text()) == REQUESTS
        time.sleep(3.2)  # the grace time
        assert registers(switch) == (LOCKED, 10)
        assert "holdover" not in switch.nsmd.text()
        print(f"{first} first: sending {took * 1000:.0f} ms after the start")


def test_ports_keep_their_indexes_when_nsmd_is_killed(lab):
    """Indexes that a fresh look at the kernel would not give: of a port made anew, and of ports beyond 255."""
    switch, watch = make(lab)
    with watch:
        lab._next_index = 1000
        for port in ("p3", "p4"):
            lab.link(switch, port, lab.tester, "t" + port[1:])
        switch.wait_port("p4", up="enable")
        for port in ("p2", "p3"):
            switch.ip("link", "delete", port)
            wait_until(lambda: switch.port(port) == {}, 3)
            lab.link(switch, port, lab.tester, "t" + port[1:])
            switch.wait_port(port, up="enable")
            switch.configure(f"interface {port}", "clock synce priority 77", "clock synce enable")
        numbers = [line.split(":")[0] for line in status_of(switch).splitlines() if line.startswith("port ")]
        settle(switch)
        before = switch.show("running-config")
        for _ in range(3):
            switch.nsmd.kill()
            start_nsmd(switch)
            switch.nsmd.wait_log(REQUESTS[-1], 3)
            after = [line.split(":")[0] for line in status_of(switch).splitlines() if line.startswith("port ")]
            assert sorted(after) == sorted(numbers)
            assert switch.show("running-config") == before
        settle(switch)
