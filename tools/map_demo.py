"""./demo --map: a ring of switches, or more of them, and esmcmap that shows them live in a browser.

Switch A is the clock. On a terminal lines are read that change the network while the map is looked at; elsewhere it runs
until it is interrupted.
"""

import argparse
import json
import pathlib
import re
import select
import signal
import subprocess
import sys
import tempfile
import time
import urllib.request

import ring
from lab import BIN, Lab, Plug, build_dir
from network_build import KINDS, Crew, Plan, too_small

MOST = 50
HELP = """    cut A B          pulls the cable between A and B         plug A B    plugs it in again
    lose             A has lost its clock                    find        A has its clock again
    kill B           both programs of B, as a loss of power  start B     starts them again
    loop             the guard off, the clock lost: what then may happen to a ring
    text             the map as text, here                   quit"""


def switch_file(path, switches):
    """The file for esmcmap: each switch asked by its shell, in its own namespaces."""
    path.write_text("".join(f"switch {name} command {' '.join(switch.enter([BIN + '/esmcsh', '-c']))} 'show clock synce json'\n"
                            for name, switch in switches.items()))
    return path


class Map:
    """esmcmap with these arguments, serving. `url` is where."""

    def __init__(self, *arguments, where="127.0.0.1:0"):
        self.process = subprocess.Popen([str(build_dir() / "bin/esmcmap"), *map(str, arguments), "--serve", where],
                                        stdout=subprocess.PIPE, text=True, start_new_session=True)
        found = re.search(r"http://\S+", self.process.stdout.readline())
        if not found:
            raise RuntimeError(f"esmcmap does not serve at {where}")
        self.url = found[0]

    def get(self, path):
        with urllib.request.urlopen(self.url + path, timeout=20) as reply:
            return json.load(reply)

    def stop(self):
        self.process.terminate()
        assert self.process.wait(20) == 0
        self.process.stdout.close()


def names(count):
    """A to Z, then A1, B1, ..."""
    return [chr(ord("A") + at % 26) + (str(at // 26) if at >= 26 else "") for at in range(count)]


class Switches:
    """The switches of a plan with names, the first of them the clock. They run as long as this is kept."""

    def __init__(self, lab, kind, count, extra):
        self.lab, self.plan = lab, Plan(kind, count)
        self.plan.wires = self.plan.wires[:len(self.plan.links)]  # the clock is a switch, not a master outside
        self.crew, self.by_name, self.plugs = Crew(), {}, {}
        self.names = names(count)
        for ports in self.plan.ports.values():
            for outside in ("pf", "pt"):
                if outside in ports:
                    ports.remove(outside)

        def make(number):
            lines = list(extra) + (["clock synce local-quality option1 prc", "clock synce master-only"] if number == 0 else [])
            self.by_name[self.names[number]] = lab.switch(self.names[number], config=self.plan.config(number, lines))
        self.crew.each(make, range(count))
        self.by_name = {name: self.by_name[name] for name in self.names}
        for one, other in self.plan.wires:
            lab.link(self.switch(one), one[1], self.switch(other), other[1])
        self.crew.each(lambda switch: switch.start(), self.by_name.values())

    def switch(self, end):
        return self.by_name[self.names[end[0]]]

    def cable(self, one, other, up):
        for a, b in self.plan.wires:
            if {self.names[a[0]], self.names[b[0]]} == {one, other}:
                if (a, b) not in self.plugs:
                    self.plugs[a, b] = Plug(self.switch(a), a[1])
                self.plugs[a, b].set(up)
                return None
        return f"no link between {one} and {other}"

    def power(self, name, on):
        switch = self.by_name.get(name)
        if not switch:
            return f"no switch {name}"
        if on and not switch.esmcd.alive():
            switch.start()
        elif not on and switch.esmcd.alive():
            switch.esmcd.kill()
            switch.nsmd.kill()
        return None

    def configure(self, name, *lines):
        self.by_name[name].configure(*lines)

    def clock(self, has):
        self.configure(self.names[0], *(("clock synce local-quality option1 prc", "clock synce master-only") if has else ring.LOSE_CLOCK))

    def unguarded(self):
        self.crew.each(lambda switch: switch.configure("no clock synce loop-guard", "no clock synce ssm extend"),
                       self.by_name.values())


class Desk:
    """Reads lines and does what they say."""

    def __init__(self, switches, file):
        self.switches, self.file = switches, file

    def do(self, words):
        """What there is to say about it; None: nothing."""
        switches = self.switches
        match words:
            case ["cut", one, other]:
                return switches.cable(one, other, False)
            case ["plug", one, other]:
                return switches.cable(one, other, True)
            case ["kill", name]:
                return switches.power(name, False)
            case ["start", name]:
                return switches.power(name, True)
            case ["lose"]:
                return switches.clock(False)
            case ["find"]:
                return switches.clock(True)
            case ["loop"]:
                switches.unguarded()
                return switches.clock(False)
            case ["text"]:
                return subprocess.run([build_dir() / "bin/esmcmap", self.file], capture_output=True, text=True).stdout
        return HELP

    def run(self):
        while True:
            print("map> ", end="", flush=True)
            line = sys.stdin.readline()
            words = line.split()
            if not line or words == ["quit"]:
                return
            if not words:
                continue
            try:
                said = self.do(words)
            except (RuntimeError, AssertionError, OSError) as failure:
                said = str(failure)
            if said:
                print(said)


def parse(arguments):
    parser = argparse.ArgumentParser(prog="./demo --map", description="Runs switches, and serves a live map of them.")
    parser.add_argument("--switches", type=int, default=3, metavar="N", help=f"how many, up to {MOST} (default 3)")
    parser.add_argument("--kind", choices=KINDS, default="ring", help="shape (default ring)")
    parser.add_argument("--no-guard", action="store_true", help="without the extension and the loop guard")
    parser.add_argument("--at", default="127.0.0.1:8466", metavar="ADDRESS:PORT", help="where the map is served (default %(default)s)")
    options = parser.parse_args(arguments)
    if not 2 <= options.switches <= MOST:
        parser.error(f"--switches takes 2 to {MOST}")
    return options


def show(switches, options, began):
    file = switch_file(switches.lab.logs / "switches", switches.by_name)
    print(f"{options.switches} switches run, after {time.monotonic() - began:.1f} s; {switches.names[0]} is the clock.", flush=True)
    shown = Map(file, where=options.at)
    try:
        print(f"The map: {shown.url}\n", flush=True)
        if sys.stdin.isatty():
            print(HELP)
            Desk(switches, file).run()
        else:
            select.select([], [], [])
    finally:
        shown.stop()


def interrupted(number, _frame):
    raise KeyboardInterrupt(number)


def main(arguments):
    options = parse(arguments)
    reasons = too_small(options.switches)
    if reasons:
        print("./demo --map: " + "; ".join(reasons))
        return 2
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, interrupted)
    guard = [] if options.no_guard else ring.GUARD.split("\n")[:-1]
    status, complaints, began = 0, [], time.monotonic()
    with tempfile.TemporaryDirectory(prefix="esmc-map-") as logs:
        lab = Lab(pathlib.Path(logs))
        try:
            switches = Switches(lab, options.kind, options.switches, guard)
            show(switches, options, began)
        except KeyboardInterrupt:
            print("\nending")
        except (RuntimeError, AssertionError, OSError, ValueError, subprocess.SubprocessError) as failure:
            print(f"FAILED: {failure}\n{lab.tails(10)}")
            status = 1
        finally:
            for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
                signal.signal(number, signal.SIG_IGN)
            complaints = lab.stop()
    for complaint in complaints:
        print(f"FAILED: {complaint}")
    return 1 if complaints else status


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
