"""What tools/network prints and draws of its figures: tables, growth, curves. Also the bounds beside which they stand."""

import json
import math
import pathlib

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
    """k of value ~ count^k by least squares on the logarithms; None with fewer than two counts or values of 0."""
    logs = [(math.log(count), math.log(value)) for count, value in points if value and value > 0]
    if len({x for x, _ in logs}) < 2 or len(logs) < len(points):
        return None
    mean_x = sum(x for x, _ in logs) / len(logs)
    mean_y = sum(y for _, y in logs) / len(logs)
    return (sum((x - mean_x) * (y - mean_y) for x, y in logs) / sum((x - mean_x) ** 2 for x, _ in logs))


def series(runs, phase, value):
    """(switches, value of that phase) of each run that has it."""
    return [(run["switches"], value(found)) for run in runs for found in run["phases"] if found["name"] == phase]


COSTS = {"quality_ms": lambda phase: phase["quality_ms"], "still_ms": lambda phase: phase["still_ms"],
         "pdus": lambda phase: phase["pdus"], "cpu_s": lambda phase: phase["cpu_s"]}


def fit(runs):
    """Exponents by phase and figure, and of the memory."""
    if len({run["switches"] for run in runs}) < 2:
        return {}
    found = {phase["name"]: {name: exponent(series(runs, phase["name"], value)) for name, value in COSTS.items()}
             for phase in runs[0]["phases"]}
    found["memory"] = {"pss_kib": exponent([(run["switches"], run["memory"]["pss_kib"]) for run in runs])}
    return found


def fit_table(runs):
    lines = ["", f"growth, ~ switches^k, fitted over {', '.join(str(run['switches']) for run in runs)}",
             f"{'':12}" + "".join(f"{name:>12}" for name in COSTS)]
    fitted = fit(runs)
    for phase, figures in fitted.items():
        if phase != "memory":
            lines.append(f"{phase:12}" + "".join(
                f"{'-' if figures[name] is None else format(figures[name], '.2f'):>12}" for name in COSTS))
    if "memory" in fitted:
        lines.append(f"memory (PSS) {fitted['memory']['pss_kib']:.2f}")
    return "\n".join(lines)
