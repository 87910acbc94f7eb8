"""Three switches in a ring, A-B, B-C, C-A; A is the clock. Shared by ./demo and the ring's system test."""

# switch -> (configuration, {port: the neighbour at its other end})
PORT_TO = {
    "A": {"p1": "B", "p2": "C"},
    "B": {"p1": "A", "p2": "C"},
    "C": {"p1": "A", "p2": "B"},
}

COMMON = """clock synce global-enable
clock synce ssm enable
"""

# B and C prefer the port towards A; priority decides only between equal qualities.
PORTS = """!
interface p1
 clock synce priority 10
 clock synce enable
!
interface p2
 clock synce priority 20
 clock synce enable
!
"""

CONFIG = {
    "A": COMMON + "clock synce local-quality option1 prc\nclock synce master-only\n" + PORTS,
    "B": COMMON + PORTS,
    "C": COMMON + PORTS,
}

LINKS = [("A", "p1", "B", "p1"), ("A", "p2", "C", "p1"), ("B", "p2", "C", "p2")]

# What each switch shows: (state, source, quality, DPLL).
WHOLE = {"A": ("Mast-Clock", "N/A", "PRC", None), "B": ("Lock", "p1", "PRC", "Lock"), "C": ("Lock", "p1", "PRC", "Lock")}
CUT_A_B = {"A": WHOLE["A"], "B": ("Lock", "p2", "PRC", "Lock"), "C": WHOLE["C"]}
# C has lost every source and holds over at EEC1; B follows it, since a clock that is told EEC1 is one still.
CUT_BOTH = {"A": WHOLE["A"], "B": ("Lock", "p2", "EEC1/SEC", "Lock"), "C": ("Holdover", "N/A", "EEC1/SEC", "Holdover")}

# What we recommend in a ring.
GUARD = """clock synce ssm extend
clock synce loop-guard
"""

# A has lost its clock. With the guard B and C hold over, and A follows one of them; without it each may follow the next.
NO_CLOCK = {"A": ("Lock", None, "EEC1/SEC", None), "B": ("Holdover", "N/A", "EEC1/SEC", "Holdover"),
            "C": ("Holdover", "N/A", "EEC1/SEC", "Holdover")}
LOSE_CLOCK = ("no clock synce master-only", "no clock synce local-quality")


def circle(sources):
    """The switches that follow each other in a circle, as "A, B, C, A"; empty when none do. `sources`: switch -> port."""
    way = ["A"]
    while sources.get(way[-1]) in PORT_TO[way[-1]]:
        way.append(PORT_TO[way[-1]][sources[way[-1]]])
        if way[-1] in way[:-1]:
            return ", ".join(way[way.index(way[-1]):])
    return ""


NSMD_OPTIONS = ("--port", "p*", "--dpll", "sim")


def make(lab, start=True, more=""):
    """The three switches, linked, with `more` lines of configuration. With `start`, their daemons run."""
    switches = {name: lab.switch(name, config=more + CONFIG[name]) for name in CONFIG}
    for one, port, other, other_port in LINKS:
        lab.link(switches[one], port, switches[other], other_port)
    if start:
        for switch in switches.values():
            switch.start_nsmd(*NSMD_OPTIONS)
            switch.start_esmcd(wait=False)
        for switch in switches.values():
            switch.wait_shell()
    return switches


def state_of(clock):
    """(state, source, quality, DPLL) out of the values of a clock block."""
    return (clock.get("Clock running state"), clock.get("Current selected interface"), clock.get("Current quality"),
            clock.get("DPLL running state"))


def matches(clock, expected):
    return all(want is None or have == want for have, want in zip(state_of(clock), expected))
