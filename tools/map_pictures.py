"""Pictures of the map, from switches that run: see tools/map_pictures."""

import pathlib
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tests/map"))

import ring  # noqa: E402
from browser import Browser  # noqa: E402
from lab import Lab  # noqa: E402
from map_demo import Map, switch_file  # noqa: E402

NAMES = [f"sw{number}" for number in range(1, 9)]
ACROSS = {"sw2": 30, "sw6": 5}  # the link across, and the priority that each end gives it: sw6 prefers it
MESH_PORT = "interface p3\n clock synce priority {}\n clock synce enable\n!\n"
MOST = 150_000  # octets a picture

FOLLOWING = "document.querySelectorAll('#network .node[data-state=lock]:not([data-island], [data-loop])').length === 7"
LOOP = "document.querySelectorAll('#network .link[data-loop]').length >= 3 && document.title.startsWith('LOOP')"


def wiring():
    """(switch, port) -> (switch, port) at the other end: p1 of each leads back, p2 onward."""
    cables = [((one, "p2"), (other, "p1")) for one, other in zip(NAMES, NAMES[1:] + NAMES[:1])] + [tuple((name, "p3") for name in ACROSS)]
    return dict(cables) | {other: one for one, other in cables}


def make(lab, guard):
    """The ring, sw1 its master."""
    switches = {}
    for name in NAMES:
        config = guard + (ring.CONFIG["A"] if name == NAMES[0] else ring.CONFIG["B"]) + (MESH_PORT.format(ACROSS[name]) if name in ACROSS else "")
        switches[name] = lab.switch(name, config=config)
    for (one, port), (other, other_port) in wiring().items():
        if one < other:
            lab.link(switches[one], port, switches[other], other_port)
    for switch in switches.values():
        switch.start_nsmd(*ring.NSMD_OPTIONS)
        switch.start_esmcd(wait=False)
    for switch in switches.values():
        switch.wait_shell()
    return switches


def keep(browser, file):
    """The page as it is now, once nothing moves."""
    browser.wait("document.getAnimations().length === 0 && performance.now() > 3000")
    browser("shot", file=str(file))
    octets = file.stat().st_size
    assert octets <= MOST, f"{file} has {octets} octets"
    print(f"{file}: {octets} octets")


def run(folder, guard, act):
    with tempfile.TemporaryDirectory() as logs:
        lab, browser, served = Lab(pathlib.Path(logs) / "logs"), Browser(), None
        try:
            switches = make(lab, guard)
            served = Map(switch_file(pathlib.Path(logs) / "switches", switches))
            browser("open", url=served.url, width=1100, height=660)
            act(browser, switches, folder)
        finally:
            browser.close()
            if served:
                served.stop()
            lab.stop()


def whole(browser, _, folder):
    browser.wait(FOLLOWING, 60)
    browser("click", at=".node[data-id=sw4]")
    keep(browser, folder / "map.png")


def loop(browser, switches, folder):
    browser.wait(FOLLOWING, 60)
    switches["sw1"].configure(*ring.LOSE_CLOCK)
    browser.wait(LOOP, 60)
    keep(browser, folder / "map-loop.png")


def main():
    folder = pathlib.Path(sys.argv[1]).resolve()
    folder.mkdir(parents=True, exist_ok=True)
    run(folder, ring.GUARD, whole)
    run(folder, "", loop)


if __name__ == "__main__":
    main()
