"""What tools/network prints and draws of its figures: tables, growth, curves. Also the bounds beside which they stand."""

import json
import math
import pathlib
import statistics

PHASE_TITLES = (f"{'':12}{'first':>9}{'quality':>10}{'still':>10}   {'told':>5}{'loops':>6}{'longest':>10}{'standing':>9}"
                f"{'wrong':>6}{'PDUs':>8}{'busiest':>8}{'CPU':>8}\n"
                f"{'':12}{'ms':>9}{'ms':>10}{'ms':>10}   {'':5}{'seen':>6}{'ms':>10}{'':9}{'':6}{'':8}{'in 1 s':>8}{'s':>8}")


def _ms(value):
    return "-" if value is None else f"{value:.1f}"


def phase_line(phase):
    loops = phase["loops"]
    line = (f"{phase['name']:12}{_ms(phase['first_ms']):>9}{_ms(phase['quality_ms']):>10}{_ms(phase['still_ms']):>10}   "
            f"{phase['switches_that_told']:>5}{loops['seen']:>6}{loops['longest_ms']:>10.1f}{len(phase['standing_loops']):>9}"
            f"{phase['wrong']:>6}{phase['pdus']:>8}{phase['busiest_port_pdus_per_s']:>8}{phase['cpu_s']:>8.2f}")
    notes = []
    if not phase["settled"]:
        notes.append("never still")
    if phase["shown_otherwise"]:
        notes.append(f"{phase['shown_otherwise']} switches show another source than they told")
    return line + ("   " + "; ".join(notes) if notes else "")


def closing_lines(run):
    if run["bare"]:
        return
    memory, rest = run["memory"], next(phase for phase in run["phases"] if phase["name"] == "rest")
    yield (f"at rest: {rest['pdus'] / rest['seconds']:.0f} PDUs and {rest['cpu_s'] / rest['seconds'] * 1000:.1f} ms of a "
           f"processor in a second; {memory['pss_kib'] / 1024:.1f} MiB of {memory['processes']} programs (PSS), "
           f"{memory['kernel_kib'] / 1024:.0f} MiB more of the kernel")
    if run["watch"]["frames_missed"]:
        yield f"NOT ALL SEEN: {run['watch']['frames_missed']} frames came faster than they could be read"


def processor_model():
    for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines():
        if line.startswith("model name"):
            return line.split(":", 1)[1].strip()
    return "unknown"


# ---- Growth -----------------------------------------------------------------------------------------------------

def exponent(points):
    """k of value ~ count^k by least squares on the logarithms; None with fewer than two counts or with values of 0."""
    if len({count for count, _ in points}) < 2 or any(value <= 0 for _, value in points):
        return None
    logs = [(math.log(count), math.log(value)) for count, value in points]
    mean_x = sum(x for x, _ in logs) / len(logs)
    mean_y = sum(y for _, y in logs) / len(logs)
    return (sum((x - mean_x) * (y - mean_y) for x, y in logs) / sum((x - mean_x) ** 2 for x, _ in logs))


def series(runs, phase, value):
    """(switches, median of the values of the phases of that name) of each run that has any."""
    points = []
    for run in runs:
        values = [value(found) for found in run["phases"] if found["name"] == phase]
        values = [found for found in values if found is not None]
        if values:
            points.append((run["switches"], statistics.median(values)))
    return points


def relayed_ms(phase):
    """From the first switch that told something new to the last one that told another quality."""
    return None if phase["quality_ms"] is None else phase["quality_ms"] - phase["first_ms"]


COSTS = {"quality_ms": lambda phase: phase["quality_ms"], "relayed_ms": relayed_ms,
         "still_ms": lambda phase: phase["still_ms"], "pdus": lambda phase: phase["pdus"],
         "cpu_s": lambda phase: phase["cpu_s"]}


def fit(runs):
    """Exponents by phase and figure, and of the memory."""
    bare = [(run["switches"], run["bare"]["median_ms"]) for run in runs if run["bare"]]
    if bare:
        return {"bare": {"relayed_ms": exponent(bare)}}
    if len({run["switches"] for run in runs}) < 2:
        return {}
    found = {phase["name"]: {name: exponent(series(runs, phase["name"], value)) for name, value in COSTS.items()}
             for phase in runs[0]["phases"]}
    found["memory"] = {"pss_kib": exponent([(run["switches"], run["memory"]["pss_kib"]) for run in runs])}
    return found


def as_json(runs):
    """A line for each run, and one for the growth: readable for `diff` too."""
    lines = ",\n".join(json.dumps(run) for run in runs)
    return f'{{"runs": [\n{lines}\n],\n"fit": {json.dumps(fit(runs))}}}\n'


def fit_table(runs):
    lines = ["", f"growth, ~ switches^k, fitted over {', '.join(str(run['switches']) for run in runs)}",
             f"{'':12}" + "".join(f"{name:>12}" for name in (*COSTS, "pss_kib"))]
    for phase, figures in fit(runs).items():
        shown = [figures.get(name) for name in (*COSTS, "pss_kib")]
        lines.append(f"{phase:12}" + "".join(f"{'-' if k is None else format(k, '.2f'):>12}" for k in shown))
    return "\n".join(lines)


# ---- Curves -----------------------------------------------------------------------------------------------------

GOAL_MS = 50.0  # for everybody in a chain of 200 to know of a lost master


def budget_s(count):
    """(At best, at most) in seconds, by the message delays of G.781, for a chain that is cut next to its source while the alternative
    is at its far end: the first switch says that its source is gone, the message goes to the end, and all turn round."""
    return 0.5 + count * 0.18, 2.0 + (count - 1) * 0.2 + count * 0.5


def _figure(title, x_label, y_label):
    import matplotlib  # only who draws needs it
    matplotlib.use("svg")
    matplotlib.rcParams.update({"svg.hashsalt": "esmcd", "svg.fonttype": "none", "font.size": 9})
    from matplotlib import pyplot, ticker
    figure, axes = pyplot.subplots(figsize=(6.4, 4.0))
    axes.set(title=title, xlabel=x_label, ylabel=y_label, xscale="log", yscale="log")
    axes.grid(True, which="both", linewidth=0.3)
    axes.xaxis.set_major_locator(ticker.FixedLocator([6, 12, 25, 50, 100, 200, 400, 1000]))
    axes.xaxis.set_minor_locator(ticker.NullLocator())
    axes.xaxis.set_major_formatter(ticker.FormatStrFormatter("%d"))
    axes.yaxis.set_major_formatter(ticker.FormatStrFormatter("%g"))
    return figure, axes


def _lines(axes, runs, phase, value, style="o-"):
    """A line for each kind of network, with the guard and without it."""
    for kind, guard in sorted({(run["kind"], run["guard"]) for run in runs}):
        points = sorted(point for point in series([run for run in runs if (run["kind"], run["guard"]) == (kind, guard)],
                                                  phase, value) if point[1])
        if points:
            axes.plot(*zip(*points), "s--" if guard else style, label=f"{kind}, guard {'on' if guard else 'off'}")


def _save(figure, axes, path):
    axes.legend(fontsize=8)
    figure.tight_layout()
    figure.savefig(path, metadata={"Date": None})
    print(path)


def draw(directory, files):
    runs = [run for file in files for run in json.loads(file.read_text())["runs"]]
    bare = sorted((run["switches"], run["bare"]["median_ms"]) for run in runs if run["bare"])
    runs = [run for run in runs if not run["bare"] and not run["loss_percent"]]
    directory.mkdir(parents=True, exist_ok=True)

    figure, axes = _figure("The master is lost: until the last switch says so", "switches", "ms")
    _lines(axes, [run for run in runs if run["kind"] == "chain"], "feed cut", lambda phase: phase["quality_ms"])
    if bare:
        axes.plot(*zip(*bare), "^:", color="gray", label="chain of bare loops")
    axes.axhline(GOAL_MS, color="red", linewidth=0.8, label=f"goal: {GOAL_MS:g} ms")
    _save(figure, axes, directory / "master-lost.svg")

    figure, axes = _figure("The first link is cut: until nothing changes any more", "switches", "s")
    rings = [run for run in runs if run["kind"] == "ring"]  # where there is an alternative, at the far end
    _lines(axes, rings, "link cut", lambda phase: phase["still_ms"] and phase["still_ms"] / 1000)
    counts = sorted({run["switches"] for run in rings})
    for which, (name, style) in enumerate((("at best", ":"), ("at most", "-."))):
        axes.plot(counts, [budget_s(count)[which] for count in counts], style, color="gray",
                  label=f"the standard's budget, {name}")
    _save(figure, axes, directory / "link-cut.svg")

    figure, axes = _figure("PDUs of all switches from the cut of the feed to rest", "switches", "PDUs in a second")
    _lines(axes, runs, "feed cut", lambda phase: phase["pdus"] / phase["seconds"])
    _save(figure, axes, directory / "pdus.svg")

    figure, axes = _figure("Processor time of all daemons", "switches", "ms in a second")
    _lines(axes, runs, "rest", lambda phase: 1000 * phase["cpu_s"] / phase["seconds"])
    _save(figure, axes, directory / "cpu.svg")
