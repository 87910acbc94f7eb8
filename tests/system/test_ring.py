"""Three switches in a ring agree on a clock, and go on agreeing when links are cut and restored."""

import time

import pytest
import ring
from lab import wait_until


def settle(switches, expected, deadline):
    """Waits until every switch shows what is expected of it; returns the seconds that took."""
    began = time.monotonic()
    seen = {}

    def settled():
        seen.update({name: switch.clock() for name, switch in switches.items()})
        return all(ring.matches(seen[name], expected[name]) for name in switches)
    try:
        wait_until(settled, deadline, "the ring settles", interval=0.02)
    except AssertionError:
        shown = {name: ring.state_of(clock) for name, clock in seen.items()}
        raise AssertionError(f"not within {deadline} s: {expected}; the switches show {shown}") from None
    return time.monotonic() - began


@pytest.fixture
def switches(lab):
    made = ring.make(lab)
    settle(made, ring.WHOLE, 10)
    return made


def test_ring_follows_its_master_through_cuts_and_restores(switches):
    a, b, c = switches["A"], switches["B"], switches["C"]
    # Towards its source each switch says DNU, elsewhere what it has.
    b.wait_port("p1", rx="PRC", tx="DNU", up="enable")
    b.wait_port("p2", rx="PRC", tx="PRC")
    c.wait_port("p1", rx="PRC", tx="DNU")
    a.wait_port("p1", tx="PRC", rx="N/A")

    a.link_set("p1", False)
    settle(switches, ring.CUT_A_B, 5)
    c.wait_port("p2", rx="DNU", tx="PRC")

    a.link_set("p2", False)
    settle(switches, ring.CUT_BOTH, 5)
    b.wait_port("p2", rx="EEC1/SEC", tx="DNU")

    a.link_set("p1", True)
    a.link_set("p2", True)
    settle(switches, ring.WHOLE, 15)


def test_silent_neighbour_is_given_up_after_five_seconds(switches):
    """The link stays up and only the frames stop: the time-out has to notice, not the link event."""
    switches["A"].configure("interface p1", "no clock synce ssm enable tx")
    took = settle(switches, ring.CUT_A_B, 8)
    assert took > 3.5, f"given up after {took:.2f} s already"


def test_option_two_ring(switches):
    for name, switch in switches.items():
        switch.configure("clock synce local-quality option2 " + ("prs" if name == "A" else "dus"))
    expected = {name: (state, source, "PRS", dpll) for name, (state, source, _, dpll) in ring.WHOLE.items()}
    settle(switches, expected, 15)
    # A master that admits to less is followed all the same: it is the best there is.
    switches["A"].configure("clock synce local-quality option2 eec2")
    settle(switches, {name: want[:2] + ("EEC2/ST3",) + want[3:] for name, want in expected.items()}, 5)
