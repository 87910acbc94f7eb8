"""Three switches in a ring agree on a clock, and go on agreeing when links are cut and restored."""

import json

import ring
from lab import wait_until


def settle(switches, expected, deadline):
    """Waits until every switch shows what is expected of it."""
    for name, switch in switches.items():
        wait_until(lambda: ring.matches(switch.clock(), expected[name]), deadline, f"{name} shows {expected[name]}")


def test_ring_follows_its_master_through_cuts_and_restores(lab):
    switches = ring.make(lab)
    a, b, c = switches["A"], switches["B"], switches["C"]
    settle(switches, ring.WHOLE, 10)
    # Towards its source each switch says DNU, elsewhere what it has.
    b.wait_port("p1", rx="PRC", tx="DNU", up="enable")
    b.wait_port("p2", rx="PRC", tx="PRC")
    c.wait_port("p1", rx="PRC", tx="DNU")
    a.wait_port("p1", tx="PRC", rx="N/A")
    # Who asks all of them joins the ends of each link; a master-only switch hears nobody.
    ports = {(name, port["name"]): port for name, switch in switches.items()
             for port in json.loads(switch.show("clock synce json"))["ports"]}
    at = {port["address"]: end for end, port in ports.items()}
    assert {end: at[port["neighbour"]] for end, port in ports.items() if port["neighbour"]} == {
        ("B", "p1"): ("A", "p1"), ("B", "p2"): ("C", "p2"), ("C", "p1"): ("A", "p2"), ("C", "p2"): ("B", "p2")}

    a.link_set("p1", False)
    settle(switches, ring.CUT_A_B, 5)
    c.wait_port("p2", rx="DNU", tx="PRC")

    a.link_set("p2", False)
    settle(switches, ring.CUT_BOTH, 5)
    b.wait_port("p2", rx="EEC1/SEC", tx="DNU")

    a.link_set("p1", True)
    a.link_set("p2", True)
    settle(switches, ring.WHOLE, 15)

    # The other network option. A master that admits to less is followed all the same: it is the best there is.
    for name, switch in switches.items():
        switch.configure("clock synce local-quality option2 " + ("prs" if name == "A" else "dus"))
    for quality, word in (("PRS", "prs"), ("EEC2/ST3", "eec2")):
        a.configure("clock synce local-quality option2 " + word)
        settle(switches, {name: want[:2] + (quality,) + want[3:] for name, want in ring.WHOLE.items()}, 15)
