"""The demonstration behind ./demo: a ring of three switches, a table of their clocks, and links that are cut.

On a terminal the table is redrawn in place while things happen; elsewhere each step prints its table once, as
plain text. Times are read by polling the switches' shells, so they are exact to one round of questions, which is
printed with them.
"""

import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import time

import ring
from lab import BIN, PATIENCE, Lab, parse_show

STATE = pathlib.Path("/run/esmc-demo.json")  # what --keep leaves behind for --stop

SWITCH_COLUMNS = [("switch", 7), ("clock", 11), ("source", 7), ("quality", 10), ("DPLL", 17)]
PORT_COLUMNS = [("port", 8), ("link", 5), ("received", 10), ("sent", 8)]


class Failed(Exception):
    """An expected state was not reached."""


def read_switch(switch):
    """The clock block and the blocks of both ports, in one question."""
    text = switch.cli("show clock synce", "show clock synce p1", "show clock synce p2").out
    blocks = text.split("-" * 72 + "\n")
    ports = {block["Interface"]: block for block in map(parse_show, blocks[1:])}
    return parse_show(blocks[0]), ports


def row(columns, values):
    return "".join(str(value).ljust(width) for (_, width), value in zip(columns, values))


def table(seen):
    """The table's lines: one of a switch's clock, with its two ports beside it."""
    titles = row(SWITCH_COLUMNS, [name for name, _ in SWITCH_COLUMNS])
    lines = [titles + row(PORT_COLUMNS, [name for name, _ in PORT_COLUMNS])]
    for name, (clock, ports) in seen.items():
        state, source, quality, dpll = ring.state_of(clock)
        if source in ring.PORT_TO[name]:
            source = f"{source}={ring.PORT_TO[name][source]}"
        head = row(SWITCH_COLUMNS, [name, state, source, quality, "-" if dpll is None else dpll])
        for port, peer in ring.PORT_TO[name].items():
            block = ports.get(port, {})
            link = "up" if block.get("Port up") == "enable" else "down"
            lines.append(head + row(PORT_COLUMNS, [f"{port} to {peer}", link, block.get("Receive quality", "-"),
                                                   block.get("Send quality", "-")]))
            head = " " * len(head)
    return [line.rstrip() for line in lines]


class Screen:
    """Where the table goes: redrawn in place on a terminal, printed on request elsewhere."""

    def __init__(self):
        self.live = sys.stdout.isatty() and os.environ.get("TERM", "dumb") != "dumb"
        self.drawn = 0

    def say(self, text=""):
        self.drawn = 0  # what stands above a said line is no longer redrawn
        print(text, flush=True)

    def draw(self, lines):
        if not self.live:
            return
        width = shutil.get_terminal_size().columns - 1
        up = f"\x1b[{self.drawn}A" if self.drawn else ""
        sys.stdout.write(up + "".join(f"\x1b[K{line[:width]}\n" for line in lines))
        sys.stdout.flush()
        self.drawn = len(lines)

    def finish(self, lines):
        """The table as it stands at the end of a step."""
        if self.live:
            self.draw(lines)
        else:
            for line in lines:
                print("    " + line)
            sys.stdout.flush()
        self.drawn = 0


class Demo:
    def __init__(self, lab, screen):
        self.lab, self.screen, self.switches, self.results = lab, screen, {}, []

    def look(self):
        return {name: read_switch(switch) for name, switch in self.switches.items()}

    def step(self, title, change, expected, settled=None, deadline=PATIENCE):
        """Makes a change and waits until every switch shows what is expected of it."""
        self.screen.say(f"\n{title}")
        began = time.monotonic()
        change()
        reached, turned, rounds, seen = {}, {}, 0, {}
        while True:
            seen = self.look()
            now, rounds = time.monotonic(), rounds + 1
            for name, (clock, _) in seen.items():
                if not ring.matches(clock, expected[name][:2]):
                    turned.pop(name, None)
                else:
                    turned.setdefault(name, now)
                if not ring.matches(clock, expected[name]):
                    reached.pop(name, None)
                elif name not in reached:
                    reached[name] = now
            done = len(reached) == len(seen) and (settled is None or settled(seen))
            header = f"{(now - began) * 1000:6.0f} ms"
            self.screen.draw(table(seen) + [header if not done else ""])
            if done:
                break
            if now - began > deadline:
                self.screen.finish(table(seen))
                wrong = [name for name in seen if name not in reached]
                raise Failed(f"not within {deadline:g} s: " + "; ".join(
                    f"{name} shows {ring.state_of(seen[name][0])}, expected {expected[name]}" for name in wrong)
                    if wrong else "the ports do not show what they should")
            time.sleep(0.005)
        took = (max(reached.values()) - began) * 1000
        self.screen.finish(table(seen))
        last = max(reached, key=reached.get)
        sources = (max(turned.values()) - began) * 1000
        self.screen.say(f"    sources right after {sources:.0f} ms, qualities and DPLLs too after {took:.0f} ms "
                        f"(last: {last}; asked every {(now - began) * 1000 / rounds:.0f} ms)")
        self.results.append((title, sources, took))

    def run(self):
        def start():
            self.switches = ring.make(self.lab, more=ring.GUARD)

        def cut_first():
            self.switches["A"].link_set("p1", False)

        def cut_second():
            self.switches["A"].link_set("p2", False)

        def restore():
            self.switches["A"].link_set("p1", True)
            self.switches["A"].link_set("p2", True)

        def port_shows(name, port, **values):
            labels = {"rx": "Receive quality", "tx": "Send quality"}
            return lambda seen: all(seen[name][1].get(port, {}).get(labels[key]) == value
                                    for key, value in values.items())
        self.step("Start: A is the clock (master-only, PRC); B and C find it.", start, ring.WHOLE,
                  port_shows("B", "p2", rx="PRC", tx="PRC"))
        self.step("Cut A-B: B turns to C, which still hears A.", cut_first, ring.CUT_A_B,
                  port_shows("B", "p2", rx="PRC", tx="DNU"))
        self.step("Cut C-A, the last link to A: C holds over at EEC1, and B follows C.", cut_second, ring.CUT_BOTH,
                  port_shows("B", "p2", rx="EEC1/SEC", tx="DNU"))
        self.step("Restore both links: B and C return to A.", restore, ring.WHOLE)

    def lose_the_clock(self):
        """In rings of their own, since A stays without a clock: once with the guard, once without."""
        kept, aside = self.switches, Lab(tempfile.mkdtemp(prefix="esmc-demo-"))
        try:
            self._lose_the_clock(aside)
        finally:
            self.switches = kept
            complaints = aside.stop()
            aside.remove_logs()
        if complaints:
            raise Failed("; ".join(complaints))

    def _lose_the_clock(self, lab):
        def fail():
            self.switches["A"].configure(*ring.LOSE_CLOCK)

        def whole(clocks):
            return all(ring.matches(clock, ring.WHOLE[name]) for name, clock in clocks.items())

        def circle(clocks):
            return ring.circle({name: ring.state_of(clock)[1] for name, clock in clocks.items()})
        self.switches = ring.make(lab, more=ring.GUARD)
        self._until(whole)
        self.step("Another such ring; its A loses its clock and is a switch like the others: no loop, two clocks hold over.",
                  fail, ring.NO_CLOCK)
        self.switches = ring.make(lab)
        self._until(whole)
        fail()
        way = self._until(circle, 5)
        self.screen.say("\nThe same without extension and loop guard: " + (
            f"{way} follow each other round the ring, and nobody has a clock." if way else "this time no loop stood."))
        self.screen.finish(table(self.look()))

    def _until(self, holds, deadline=PATIENCE):
        """What `holds` makes of the clock blocks, once it is true, or at the deadline."""
        end = time.monotonic() + deadline
        while True:
            held = holds({name: clock for name, (clock, _) in self.look().items()})
            if held or time.monotonic() > end:
                return held
            time.sleep(0.02)


def kept_notice(screen, demo, here):
    screen.say("\nThe switches go on running. Explore them, for example:")
    for name, switch in demo.switches.items():
        screen.say(f"    nsenter -t {switch.pid} -m -n {BIN}/esmcsh            # a shell on switch {name}")
    a = demo.switches["A"].pid
    b = demo.switches["B"].pid
    screen.say(f"    nsenter -t {b} -m -n {BIN}/esmcsh -c 'show clock synce' -c 'show clock synce p1'")
    screen.say(f"    nsenter -t {a} -n ip link set p1 down       # cut A-B; up again restores it")
    screen.say(f"    nsenter -t {b} -n tcpdump -nei p1 ether proto 0x8809")
    screen.say(f"Logs: {demo.lab.logs}")
    screen.say(f"End them with: {here}/demo --stop")
    pids = {switch.pid: "holder" for switch in demo.switches.values()}
    for switch in demo.switches.values():
        pids.update({process.pid: process.name for process in switch.processes})
    STATE.write_text(json.dumps({"pids": {pid: start_time(pid) for pid in pids}, "logs": str(demo.lab.logs)}))


def start_time(pid):
    """When the process was started: with it, a process id names one process for ever."""
    try:
        return pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()[19]
    except OSError:
        return None


def stop_kept(quiet=False):
    if not STATE.exists():
        if not quiet:
            print("no switches were left running")
        return 0
    kept = json.loads(STATE.read_text())
    for number in (signal.SIGTERM, signal.SIGKILL):
        for pid, started in kept["pids"].items():
            if started is not None and start_time(pid) == started:
                os.kill(int(pid), number)
        end = time.monotonic() + 2
        while time.monotonic() < end and any(started and start_time(pid) == started
                                             for pid, started in kept["pids"].items()):
            time.sleep(0.02)
    shutil.rmtree(kept["logs"], ignore_errors=True)
    STATE.unlink()
    print("stopped the switches that were left running")
    return 0


def interrupted(number, _frame):
    raise KeyboardInterrupt(number)


def main(arguments):
    if "--stop" in arguments:
        return stop_kept()
    keep = "--keep" in arguments
    stop_kept(quiet=True)
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, interrupted)
    screen = Screen()
    lab = Lab(tempfile.mkdtemp(prefix="esmc-demo-"), keep=keep)
    demo, status, kept = Demo(lab, screen), 1, False
    began = time.monotonic()
    try:
        demo.run()
        demo.lose_the_clock()
        screen.say(f"\nEvery expected state was reached, in {time.monotonic() - began:.1f} s.")
        screen.say("    sources   all settled")
        for title, sources, took in demo.results:
            screen.say(f"    {sources:4.0f} ms      {took:4.0f} ms   {title}")
        status = 0
        if keep:
            kept_notice(screen, demo, pathlib.Path(__file__).resolve().parent.parent)
            kept = True
    except (Failed, RuntimeError, AssertionError, OSError, subprocess.SubprocessError) as failure:
        screen.say(f"\nFAILED: {failure}")
        screen.say(lab.tails(15))
    except KeyboardInterrupt:
        screen.say("\ninterrupted: taking the switches down")
        status = 130
    finally:
        if not kept:
            for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
                signal.signal(number, signal.SIG_IGN)
            complaints = lab.stop()
            lab.remove_logs()
            if complaints and status == 0:
                screen.say("\nFAILED: " + "; ".join(complaints))
                status = 1
    return status


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
