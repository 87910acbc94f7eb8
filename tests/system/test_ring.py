"""Three switches in a ring agree on a clock, and go on agreeing when links are cut and restored."""

import json
import time

import pytest
import ring
from lab import PATIENCE, wait_until
from wire import PRC, Neighbour, Port


def settle(switches, expected, deadline=PATIENCE):
    """Waits until every switch shows what is expected of it."""
    for name, switch in switches.items():
        wait_until(lambda: ring.matches(switch.clock(), expected[name]), deadline, f"{name} shows {expected[name]}")


def test_ring_follows_its_master_through_cuts_and_restores(lab):
    switches = ring.make(lab)
    a, b, c = switches["A"], switches["B"], switches["C"]
    settle(switches, ring.WHOLE)
    # Towards its source each switch says DNU, elsewhere what it has.
    b.wait_port("p1", rx="PRC", tx="DNU", up="enable")
    b.wait_port("p2", rx="PRC", tx="PRC")
    c.wait_port("p1", rx="PRC", tx="DNU")
    c.wait_port("p2", rx="PRC", tx="PRC")
    a.wait_port("p1", tx="PRC", rx="N/A")
    # Who asks all of them joins the ends of each link; a master-only switch hears nobody.
    ports = {(name, port["name"]): port for name, switch in switches.items()
             for port in json.loads(switch.show("clock synce json"))["ports"]}
    at = {port["address"]: end for end, port in ports.items()}
    assert {end: at[port["neighbour"]] for end, port in ports.items() if port["neighbour"]} == {
        ("B", "p1"): ("A", "p1"), ("B", "p2"): ("C", "p2"), ("C", "p1"): ("A", "p2"), ("C", "p2"): ("B", "p2")}

    a.link_set("p1", False)
    settle(switches, ring.CUT_A_B)
    c.wait_port("p2", rx="DNU", tx="PRC")

    a.link_set("p2", False)
    settle(switches, ring.CUT_BOTH)
    b.wait_port("p2", rx="EEC1/SEC", tx="DNU")

    a.link_set("p1", True)
    a.link_set("p2", True)
    settle(switches, ring.WHOLE)

    # The other network option. A master that admits to less is followed all the same: it is the best there is.
    for name, switch in switches.items():
        switch.configure("clock synce local-quality option2 " + ("prs" if name == "A" else "dus"))
    for quality, word in (("PRS", "prs"), ("EEC2/ST3", "eec2")):
        a.configure("clock synce local-quality option2 " + word)
        settle(switches, {name: want[:2] + (quality,) + want[3:] for name, want in ring.WHOLE.items()})


@pytest.mark.timing
@pytest.mark.parametrize("guard", ["", "clock synce ssm extend\nclock synce loop-guard\n"], ids=["plain", "guarded"])
def test_a_ring_that_loses_its_feed_follows_itself_only_without_the_guard(lab, guard):
    """Eight switches that prefer the same direction. Without the guard the rules have a loop close, and stand."""
    config = ring.COMMON + guard + ring.PORTS + "interface p3\n clock synce priority 5\n clock synce enable\n!\n"
    switches = [lab.switch(f"S{n}", config=config) for n in range(8)]
    world = lab.node("world", board=None)
    for switch, following in zip(switches, switches[1:] + switches[:1]):
        lab.link(switch, "p2", following, "p1")
    lab.link(switches[0], "p3", world, "f")
    for switch in switches:
        switch.start_nsmd(*ring.NSMD_OPTIONS)
        switch.start_esmcd(wait=False)
    for switch in switches:
        switch.wait_shell()
    feed, shown = Neighbour(Port(world, "f"), PRC), []

    def shows(source, quality, loop):
        """What switch 0 follows and what all are worth, or that switch 0 leads back to itself, whatever that is worth."""
        feed.keep()
        clocks = [json.loads(switch.show("clock synce json")) for switch in switches]
        at = 0
        for _ in switches:
            at = at if at is None else {"p1": (at - 1) % 8, "p2": (at + 1) % 8}.get(clocks[at]["source"])
        shown.append([(clock["source"], clock["current_quality"]) for clock in clocks])
        qualities = {clock["current_quality"] for clock in clocks}
        return (at == 0) == loop and (loop or (clocks[0]["source"] == source and qualities == {quality}))
    wait_until(lambda: shows("p3", "prc", False), what="all follow the feed")
    if not guard:  # the preferred way round, to the end; the guard lets nobody change over to a longer chain
        for switch in switches[1:]:
            wait_until(lambda: feed.keep() and switch.clock()["Current selected interface"] == "p1", what="one chain")
    switches[0].link_set("p3", False)
    cut = (None, "eec1", False) if guard else (None, None, True)

    def stands():
        end = time.monotonic() + 3
        while time.monotonic() < end:
            if not shows(*cut):
                return False
        return True
    try:
        wait_until(lambda: shows(*cut), what=f"after the cut {cut}")
        # Without the guard a loop may open and close again while what its switches are worth goes round in it.
        wait_until(stands, 0 if guard else 15, f"for 3 s {cut}")
    except BaseException:
        print("SHOWN", shown[-5:])
        raise
    switches[0].link_set("p3", True)
    wait_until(lambda: shows("p3", "prc", False), what="all follow the feed again")
