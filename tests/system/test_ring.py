"""Three switches in a ring agree on a clock, and go on agreeing when links are cut and restored."""

import time

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


def test_ring_follows_its_master_through_cuts_and_restores(lab):
    switches = ring.make(lab)
    a, b, c = switches["A"], switches["B"], switches["C"]
    settle(switches, ring.WHOLE, 10)

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


def test_silent_neighbour_is_given_up_after_five_seconds(lab):
    """The link stays up and only the frames stop: the time-out has to notice, not the link event."""
    switches = ring.make(lab)
    settle(switches, ring.WHOLE, 10)
    switches["A"].configure("interface p1", "no clock synce ssm enable tx")
    took = settle(switches, ring.CUT_A_B, 8)
    assert took > 3.5, f"given up after {took:.2f} s already"


def test_option_two_ring(lab):
    switches = ring.make(lab)
    settle(switches, ring.WHOLE, 10)
    for switch in (switches["B"], switches["C"], switches["A"]):
        switch.configure("clock synce local-quality option2 " + ("prs" if switch.name == "A" else "dus"))
    expected = {name: (state, source, "PRS", dpll) for name, (state, source, _, dpll) in ring.WHOLE.items()}
    settle(switches, expected, 15)
    # A master that admits to less is followed all the same: it is the best there is.
    switches["A"].configure("clock synce local-quality option2 eec2")
    settle(switches, {name: want[:2] + ("EEC2/ST3",) + want[3:] for name, want in expected.items()}, 5)


def test_unplugged_and_replugged_port_comes_back_as_new(lab):
    """A port that goes (another namespace takes it) and returns: its configuration is gone, the rest is unharmed."""
    switches = ring.make(lab)
    b = switches["B"]
    settle(switches, ring.WHOLE, 10)
    spare = lab.node("spare", board=None)
    b.ip("link", "set", "p1", "netns", str(spare.pid))
    settle(switches, ring.CUT_A_B, 5)
    wait_until(lambda: b.port("p1") == {}, 3, "p1 is gone from B")
    spare.ip("link", "set", "p1", "netns", str(b.pid))
    b.link_set("p1", True)
    b.wait_port("p1", up="enable", synce="disable", priority="255")
    b.configure("interface p1", "clock synce priority 10", "clock synce enable")
    settle(switches, ring.WHOLE, 10)
