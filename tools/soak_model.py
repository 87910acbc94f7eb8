"""What tools/soak knows of its network without asking it: cables, settings, who can reach which clock, and what follows
from that for what the switches show."""

RANK = {"eprtc": 1, "prtc": 2, "eprc": 3, "prc": 4, "prs": 4, "stu": 5, "ssu-a": 6, "st2": 6, "tnc": 7, "ssu-b": 8, "st3e": 8,
        "eeec": 9, "eec1": 10, "eec2": 10, "smc": 11, "prov": 12, "dnu": 15, "dus": 15, "none": 16}
NOTHING = 15
GUARD = ["clock synce ssm extend", "clock synce loop-guard"]
CLOCKS = {1: ("prc", "prc", "ssu-a", "ssu-b", "prtc"), 2: ("prs", "prs", "st2", "st3e")}
OWN = {"prc": "prc", "prtc": "prtc", "ssu-a": "prc", "ssu-b": "prc", "prs": "prs", "st2": "prs", "st3e": "prs"}  # what it is itself
LIMITS = {1: ("prc", "ssu-a", "ssu-b", "eec1"), 2: ("prs", "st2", "st3e", "eec2")}
STATES = {"locked": "lock", "holdover": "holdover", "free-running": "freerun", "acquiring": "transient"}


class Cable:
    def __init__(self, one, other):
        self.ends = [one, other]

    def __str__(self):
        return "-".join(f"S{switch}.{port}" for switch, port in self.ends)

    @staticmethod
    def disturbance(chance):
        """(loss, doubling, seconds of delay from and to)."""
        return chance.choice(((0.1, 0, None), (0.5, 0, None), (0, 0.3, None), (0, 0.2, (0, 0.05)), (0.02, 0.1, (0.01, 0.3)),
                              (0, 0, (0.5, 1.5))))


class Way:
    """From one end of a cable to the other."""

    def __init__(self):
        self.deaf, self.loss, self.twice, self.delay = False, 0, 0, None

    def set(self, disturbance):
        self.loss, self.twice, self.delay = disturbance


class Model:
    def __init__(self, count, links, chance):
        self.switches, self.cables, self.dead, self.option = range(count), [], set(), chance.choice((1, 1, 1, 2))
        ports = {switch: 0 for switch in self.switches}

        def new_port(switch):
            ports[switch] += 1
            return switch, f"p{ports[switch]}"
        for one, other in links:
            self.cables.append(Cable(new_port(one), new_port(other)))
        self.ends = [end for cable in self.cables for end in cable.ends]
        self.other, self.carrier = {}, dict.fromkeys(self.ends, False)
        for cable in self.cables:
            self.join(cable)
        self.ways = {end: Way() for end in self.ends}
        self.homes = chance.sample(list(self.switches), chance.choice((1, 1, 2, 2, 3)))
        self.one_address = chance.random() < 0.3  # of all ports of a switch
        self.limits, forms = chance.random() < 0.2, chance.choice(("own", "own", "standard", "mixed"))
        self.clock_of = {home: chance.choice(CLOCKS[self.option]) for home in self.homes}
        self.lines = {switch: self._draw_lines(forms, chance) for switch in self.switches}
        self.port_lines = {end: self._draw_port_lines(chance) for end in self.ends}
        self.forms = forms

    def __str__(self):
        return (f"{len(self.switches)} switches, {', '.join(map(str, self.cables))}; clocks {self.clock_of}, option {self.option}, "
                f"form {self.forms}{', limits' if self.limits else ''}{', one address a switch' if self.one_address else ''}")

    def join(self, cable):
        one, other = cable.ends
        self.other[one], self.other[other] = other, one

    def swap(self, one, other):
        one.ends[1], other.ends[1] = other.ends[1], one.ends[1]
        self.join(one)
        self.join(other)

    def address(self, end):
        port = 0 if self.one_address else int(end[1][1:])
        return f"02:5e:10:00:{end[0]:02x}:{port:02x}"

    def broken(self, cable):
        return any(not self.carrier[end] or self.ways[end].deaf for end in cable.ends)

    def damage(self):
        return sum(map(self.broken, self.cables)) / len(self.cables)

    # ---- Settings: lines by their subject, so that a new one takes the place of the old one.

    @staticmethod
    def _global_setting(chance, subject=None):
        subject = subject or chance.choice(("hold-off", "restore", "revert", "locked", "keep", "hold", "role", "type"))
        return subject, chance.choice({
            "hold-off": ("no clock synce hold-off", "clock synce hold-off 300", "clock synce hold-off 1800"),
            "restore": ("no clock synce wait-to-restore", "clock synce wait-to-restore 1", "clock synce wait-to-restore 4"),
            "revert": ("no clock synce non-revertive", "clock synce non-revertive"),
            "locked": ("no clock synce advertise", "clock synce advertise when-locked"),
            "keep": ("no state keep", "state keep", "state keep"),
            "hold": ("no clock synce loop-guard hold", "clock synce loop-guard hold 1500"),
            "role": ("no clock synce slave-only", "clock synce slave-only"),
            "type": ("clock synce clock-type eec", "clock synce clock-type eeec")}[subject])

    def _port_setting(self, chance):
        subject = chance.choice(("priority", "priority", "hold-off", "restore", "lockout", "minimum", "maximum", "tx minimum",
                                 "tx maximum"))
        if subject == "priority":
            return subject, f"clock synce priority {chance.choice((10, 20, 20, 30))}"
        if subject == "hold-off":
            return subject, chance.choice(("no clock synce hold-off", "clock synce hold-off 600"))
        if subject == "restore":
            return subject, chance.choice(("no clock synce wait-to-restore", "clock synce wait-to-restore 2"))
        if subject == "lockout":
            return subject, chance.choice(("no clock synce lockout",) * 3 + ("clock synce lockout",))
        if not self.limits:
            return "priority", "clock synce priority 20"
        off = f"no clock synce quality-eth {subject}"
        return subject, chance.choice((off, f"clock synce quality-eth {subject} {chance.choice(LIMITS[self.option])}"))

    def _draw_lines(self, forms, chance):
        lines = dict(self._global_setting(chance) for _ in range(chance.randint(0, 5)))
        standard = forms == "standard" or forms == "mixed" and chance.random() < 0.5
        lines["form"] = "clock synce ssm extend" + (" standard" if standard else "")
        lines["guard"] = "clock synce loop-guard"
        return lines

    def _draw_port_lines(self, chance):
        return dict([("priority", f"clock synce priority {chance.choice((20, 20, 10, 30))}")] +
                    [self._port_setting(chance) for _ in range(chance.choice((0, 0, 0, 1)))])

    def clock_lines(self, number):
        worth = self.clock_of.get(number)
        none = "no clock synce local-quality" if self.option == 1 else "clock synce local-quality option2 dus"
        ports = [end[1] for end in self.ends if end[0] == number] if number in self.homes else []
        told = f"clock synce quality-eth tx {worth}" if worth and OWN[worth] != worth else "no clock synce quality-eth tx"
        sent = [line for port in ports for line in (f"interface {port}", f" {told}")]
        if worth:
            return [f"clock synce local-quality option{self.option} {OWN[worth]}", "clock synce master-only", *sent]
        return ["no clock synce master-only", none] + [line for line in [self.lines[number].get("role")] if line] + sent

    def config(self, number):
        lines = ["clock synce global-enable", "clock synce ssm enable", *self.lines[number].values(), *self.clock_lines(number)]
        for end in self.ends:
            if end[0] == number:
                lines += [f"interface {end[1]}", *(" " + line for line in self.port_lines[end].values()), " clock synce enable", "!"]
        return "\n".join(lines) + "\n"

    def new_clock(self, number, chance):
        self.clock_of[number] = chance.choice((None, None, *CLOCKS[self.option]))
        return self.clock_lines(number)

    def new_setting(self, number, chance):
        if chance.random() < 0.5:
            subject, line = self._global_setting(chance)
            self.lines[number][subject] = line
            return [line] if subject != "role" or not self.clock_of.get(number) else []
        end = chance.choice([end for end in self.ends if end[0] == number])
        subject, line = self._port_setting(chance)
        self.port_lines[end][subject] = line
        return [f"interface {end[1]}", line]

    def passing(self, number, chance):
        """Lines that set something for a while, and those that take it back."""
        end = chance.choice([end for end in self.ends if end[0] == number])
        port, quality = [f"interface {end[1]}"], chance.choice(LIMITS[self.option])
        # A master-only switch that was forced to a port holds over afterwards, and says that.
        return chance.choice((
            ([] if self.clock_of.get(number) else [f"clock synce switch-force {end[1]}"], ["no clock synce switch-force"]),
            ([f"do clock synce manual-switch {end[1]}"], ["do clear clock synce switch"]),
            (port + [f"clock synce quality-eth rx {quality}"], port + ["no clock synce quality-eth rx"]),
            (port + [f"clock synce quality-eth tx {quality}"], port + ["no clock synce quality-eth tx", *self.clock_lines(number)]),
            (["no clock synce global-enable"], ["clock synce global-enable"]),
            (["no clock synce ssm enable"], ["clock synce ssm enable"]),
            (["no clock synce ssm extend"], [self.lines[number]["form"]]),
            (["no clock synce loop-guard"], ["clock synce loop-guard"]),
            (["clock synce loop-guard hops 2"], ["no clock synce loop-guard hops"]),
            (port + ["no clock synce enable"], port + ["clock synce enable"]),
            (port + ["no clock synce ssm enable tx"], port + ["clock synce ssm enable all"]),
            (port + ["no clock synce ssm enable rx"], port + ["clock synce ssm enable all"]),
            (port + ["clock synce extend replace-clockid"], port + ["no clock synce extend replace-clockid"]),
            (["clock synce master-only"], self.clock_lines(number))))

    # ---- What must be so

    def line(self, end, subject):
        words = self.port_lines[end].get(subject, "no").split()
        return None if words[0] == "no" else words[-1]

    def hears(self, end):
        """The end that is heard at this one; None: nobody."""
        other = self.other.get(end)
        if not other or not self.carrier[end] or not self.carrier[other] or self.ways[other].deaf or self.dead & {end[0], other[0]}:
            return None
        return other

    def offered(self, end, worth):
        """What a clock of this worth (rank) is at the port `end` when the switch that it hears has it."""
        other = self.hears(end)
        if not other or self.line(end, "lockout"):
            return NOTHING
        for at, least, most in ((other, "tx minimum", "tx maximum"), (end, "minimum", "maximum")):
            low, high = (self.line(at, limit) for limit in (least, most))
            if low and worth > RANK[low]:
                return NOTHING
            if high:
                worth = max(worth, RANK[high])
            if at == other and worth < 4 and "standard" not in self.lines[other[0]]["form"]:
                worth = 4  # the own form carries no enhanced quality
        return worth

    def reachable(self):
        """The best rank that each switch can have from a clock."""
        best = {s: RANK[self.clock_of[s]] if self.clock_of.get(s) and s not in self.dead else NOTHING for s in self.switches}
        changed = True
        while changed:
            changed = False
            for end in self.ends:
                other = self.hears(end)
                if not other or self.clock_of.get(end[0]):
                    continue
                worth = self.offered(end, best[other[0]])
                if worth < best[end[0]]:
                    best[end[0]], changed = worth, True
        return best

    def uniform(self):
        """Every path from a clock has its quality whole."""
        prtc = "prtc" in self.clock_of.values() and any("standard" not in lines["form"] for lines in self.lines.values())
        return not self.limits and not prtc

    def judge(self, shown, state):
        alive = {number: clock for number, (clock, _) in shown.items() if clock and number not in self.dead}
        yield from (f"S{number} does not answer" for number in self.switches if number not in alive and number not in self.dead)
        follows, root = {}, {}
        for number, clock in alive.items():
            source = clock["source"]
            follows[number] = None
            if source and self.hears((number, source)):
                follows[number] = self.hears((number, source))[0]
            elif source:
                yield f"S{number} follows {source}, where it hears nobody"
        loops = set()
        for number in alive:
            way = [number]
            while follows.get(way[-1]) is not None and follows[way[-1]] not in way:
                way.append(follows[way[-1]])
            root[number] = way[-1]
            again = follows.get(way[-1])
            if again is not None:
                loops.add(frozenset(way[way.index(again):]))
        yield from (f"loop of {sorted(loop)}" for loop in loops)
        yield from self._judge_worth(alive, root)
        for number, (clock, status) in shown.items():
            if clock and number not in self.dead:
                yield from self._judge_clock(number, clock, status)
        yield from self._judge_map(alive, follows, root, loops, state)

    def _judge_worth(self, alive, root):
        best, uniform = self.reachable(), self.uniform()
        for number, clock in alive.items():
            has = RANK[clock["current_quality"]]
            if self.clock_of.get(number):
                if has != RANK[OWN[self.clock_of[number]]] or clock["running_state"] != "master":
                    yield f"S{number} is no {self.clock_of[number]} master: {clock['running_state']} {clock['current_quality']}"
            elif best[number] < NOTHING and (not clock["source"] or clock["dpll_state"] != "lock"):
                yield f"S{number} could have {best[number]}, but {clock['running_state']}, {clock['no_source_reason']}"
            elif best[number] < NOTHING and uniform and has != best[number]:
                yield f"S{number} could have {best[number]}, and has {clock['current_quality']}"
            elif has < best[number] and has < 9:
                yield f"S{number} claims {clock['current_quality']}, and can't have better than {best[number]}"
            if not self.clock_of.get(root[number]) and has < 9:
                yield f"S{number} claims {clock['current_quality']}, and its root is S{root[number]}"

    @staticmethod
    def _judge_clock(number, clock, status):
        words = status.replace(",", "").split()
        state, source = words[2] if len(words) > 5 else "?", words[words.index("source") + 1] if "source" in words else "?"
        if STATES.get(state) != clock["dpll_state"]:
            yield f"S{number} says {clock['dpll_state']}, nsmd {status.splitlines()[:1]}"
        index = next((port["ifindex"] for port in clock["ports"] if port["name"] == clock["source"]), None)
        if index is not None and (state != "locked" or str(index) != source):
            yield f"S{number} follows {clock['source']} ({index}), nsmd {status.splitlines()[:1]}"
        if index is None and state == "locked":
            yield f"S{number} follows nobody, nsmd {status.splitlines()[:1]}"

    def _judge_map(self, alive, follows, root, loops, state):
        yield from (f"map: {problem}" for problem in state["problems"])
        if {frozenset(int(name[1:]) for name in loop) for loop in state["loops"]} != loops:
            yield f"map: loops {state['loops']}, and there are {loops}"
        for claim in state["claims"]:
            yield f"map: claim {claim}"
        nodes = {node["id"]: node for node in state["nodes"]}
        for node in nodes.values():
            if node["kind"] != "switch":
                yield f"map: stranger {node['id']}"
        for number in alive:
            node = nodes[f"S{number}"]
            if node["answer"] != "ok":
                yield f"map: S{number} is {node['answer']}"
                continue
            wanted = None if follows[number] is None else f"S{follows[number]}"
            if node["follows"] != wanted:
                yield f"map: S{number} follows {node['follows']}, but it is {wanted}"
            if root[number] in alive and node["island"] != (not self.clock_of.get(root[number])):
                yield f"map: S{number} island is {node['island']}, root {root[number]}"
        yield from self._judge_links(alive, state)

    def _judge_links(self, alive, state):
        def name(end):
            return f"S{end[0]}" if self.one_address else f"S{end[0]} {end[1]}"
        real = sorted(tuple(sorted(map(name, cable.ends))) for cable in self.cables
                      if any(end[0] in alive and not self.clock_of.get(end[0]) and self.hears(end) for end in cable.ends))
        shown = sorted(tuple(sorted((f"{link[end]} {link[end + '_port']}" if not self.one_address else link[end]) for end in "ab"))
                       for link in state["links"] if link["up"])
        # DNU is believed while the link is up, whether or not anything comes: such a neighbour stays one, whatever its cable is now.
        believed = [name((number, port["name"])) for number, clock in alive.items() for port in clock["ports"]
                    if port["received_quality"] in ("dnu", "dus") and not port["receiving"]
                    and (self.one_address or self.carrier.get(self.other.get((number, port["name"]))))]
        wrong = [one for one in shown if one not in real and not set(one) & set(believed)]
        missing = [one for one in real if one not in shown]
        if wrong or missing:
            yield f"map: links {wrong} are none, {missing} are missing ({len(shown)} for {len(real)})"


def draw(chance):
    count, shape = chance.randint(6, 14), chance.choice(("ring", "ring", "mesh", "tree", "parallel"))
    if shape == "tree":
        links = [(chance.randrange(at), at) for at in range(1, count)]
    else:
        order = chance.sample(range(count), count)
        links = list(zip(order, order[1:] + order[:1]))
    for _ in range({"ring": 0, "mesh": count // 2, "tree": 3, "parallel": 2}[shape]):
        links.append(tuple(chance.sample(range(count), 2)))
    if shape == "parallel":
        links += [links[0], links[count // 2]]
    return Model(count, links, chance)
