"""Runs the benchmarks of build/release and prints them as one table.

usage: bench/run [--json FILE] [FILTER]

A benchmark reports what it measured as counters: `ns_per_WHAT` is the daemon's cost, `BARE_ns` that of a bare loop
run in turn with it, and `x_BARE` the ratio of the two; `p99_ns` and `x_BARE_p99` are the 99th percentiles. A benchmark
without such counters is printed with its time alone. Then follow the growth of each cost with the number of ports, and
what the programs need (memory, an idle second, start). FILTER is a regular expression over the benchmarks' names, and
leaves the programs out; --json keeps the raw figures.
"""

import json
import math
import os
import pathlib
import platform
import re
import subprocess
import sys
import tempfile
import time

import bench_programs

BUILD = pathlib.Path(os.environ.get("ESMC_BUILD") or pathlib.Path(__file__).resolve().parent.parent / "build" / "release")

# (name, counter, goal): the ratio or the nanoseconds that a row should not exceed.
GOALS = [
    (r"^receive_to_decision/ports:16/ext:\d", "x_epoll_recvfrom", 1.0),
    (r"^receive_to_decision/ports:16/ext:\d", "x_recvfrom", 1.6),
    (r"^receive_to_decision/ports:255/ext:\d", "x_recvfrom", 1.3),
    (r"^receive_new_quality/ports:255/ext:\d", "x_recvfrom", 1.5),
    (r"^reaction/ports:255", "x_bare_loop", 1.05),
    (r"^idle_second/ports:255", "x_bare_loop", 2.0),
    (r"^fan_out/ports:(16|255)", "x_sendmmsg", 1.1),
    (r"^selection/ports:(16|64|255)/ext:\d", "ns_per_port", 1.5),
    (r"^guarded_selection/ports:255/refused:0", "x_unguarded", 1.3),
]

# Costs that are fitted over the port counts: (benchmark, counter, whether the counter is a cost for each port).
GROWTH = [
    ("receive_to_decision", "ns_per_frame", False),
    ("receive_new_quality", "ns_per_frame", False),
    ("reaction", "ns_per_reaction", False),
    ("fan_out", "ns_per_pdu", True),
    ("selection", "ns_per_port", True),
]
GROWTH_FROM = 16  # ports; below, what does not depend on them hides the growth
GROWTH_GOAL = 1.25  # the exponent: 1 is linear, 2 quadratic; the caches may cost something


def goal_of(name, counter):
    for pattern, about, limit in GOALS:
        if about == counter and re.search(pattern, name):
            return limit
    return None


def run_one(program, pattern):
    with tempfile.NamedTemporaryFile(suffix=".json") as out:
        argv = [str(program), f"--benchmark_out={out.name}", "--benchmark_out_format=json"]
        if pattern:
            argv.append(f"--benchmark_filter={pattern}")
        done = subprocess.run(argv, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        text = pathlib.Path(out.name).read_text()
        if done.returncode != 0:
            sys.exit(f"{program.name} ended with status {done.returncode}:\n{done.stdout[-2000:]}")
        return json.loads(text)["benchmarks"] if text.strip() else []


SCALE = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def rows_of(run):
    """One row for each ratio, and one for a cost that has no bare loop: (name, what, ours, bare, ratio, goal)."""
    name = re.sub(r"/(iterations:\d+|manual_time|real_time|repeats:\d+)", "", run["name"])
    costs = [key for key in run if key.startswith("ns_per_")]
    ours = run[costs[0]] if costs else run["cpu_time"] * SCALE[run["time_unit"]]
    what = costs[0][3:].replace("_", " ") if costs else "per call"
    ratios = [key for key in run if key.startswith("x_")]
    for key in ratios:
        shown, bare_ns = (run["p99_ns"], run[key[2:] + "_ns"]) if key.endswith("_p99") else (ours, run[key[2:] + "_ns"])
        yield name, what, shown, (key[2:], bare_ns), run[key], goal_of(name, key)
    if not ratios:
        yield name, what, ours, None, None, goal_of(name, costs[0]) if costs else None


def growth_of(runs, benchmark, counter, each_port):
    """(variant, exponent k of cost = c * ports^k by least squares over the logarithms, the port counts)."""
    series = {}
    for run in runs:
        match = re.match(rf"^{benchmark}/ports:(\d+)((?:/ext:\d)?)(?:/|$)", run["name"])
        if match and int(match[1]) >= GROWTH_FROM and counter in run:
            ports = int(match[1])
            series.setdefault(match[2], []).append((ports, run[counter] * (ports if each_port else 1)))
    for variant, points in series.items():
        if len(points) < 3:
            continue
        x, y = [math.log(ports) for ports, _ in points], [math.log(cost) for _, cost in points]
        mean_x, mean_y = sum(x) / len(x), sum(y) / len(y)
        slope = sum((a - mean_x) * (b - mean_y) for a, b in zip(x, y)) / sum((a - mean_x) ** 2 for a in x)
        yield benchmark + variant, slope, [ports for ports, _ in points]


def verdict_of(value, goal):
    return "" if goal is None else f"<= {goal:g} {'ok' if value <= goal else 'MISSED'}"


def machine():
    model = next((line.split(":", 1)[1].strip() for line in open("/proc/cpuinfo") if line.startswith("model name")), "?")
    return f"{time.strftime('%Y-%m-%d')}, {model}, {os.cpu_count()} processors, Linux {platform.release()}"


def main(arguments):
    if "--help" in arguments or "-h" in arguments:
        print(__doc__)
        return 0
    keep = None
    if arguments[:1] == ["--json"]:
        keep, arguments = arguments[1], arguments[2:]
    pattern = arguments[0] if arguments else None
    programs = sorted(path for path in (BUILD / "bench").glob("*_bench") if path.is_file())
    if not programs:
        sys.exit(f"no benchmark in {BUILD / 'bench'}")
    runs, missed = [], 0
    print(machine())
    print(f"{'benchmark':36} {'ours':>12} {'':10} {'bare loop':>18} {'':>10} {'ratio':>7}  goal")
    for program in programs:
        for run in run_one(program, pattern):
            if run.get("error_occurred"):
                print(f"{run['name']:36} FAILED: {run.get('error_message')}")
                missed += 1
                continue
            runs.append(run)
            for name, what, ours, bare, ratio, goal in rows_of(run):
                bare_name, bare_ns = bare or ("", None)
                value = ratio if ratio is not None else ours
                missed += goal is not None and value > goal
                print(f"{name:36} {ours:9.1f} ns {what:10} {bare_name:>18} "
                      f"{'' if bare_ns is None else f'{bare_ns:7.1f} ns':>10} "
                      f"{'' if ratio is None else f'{ratio:.2f}':>7}  {verdict_of(value, goal)}", flush=True)
    if not runs:
        sys.exit("no benchmark was run")
    for fitted in GROWTH:
        for name, exponent, ports in growth_of(runs, *fitted):
            missed += exponent > GROWTH_GOAL
            over = ", ".join(map(str, ports))
            print(f"growth of {name:36} ~ ports^{exponent:.2f} over {over} ports  {verdict_of(exponent, GROWTH_GOAL)}")
    for name, value, unit, goal in bench_programs.measure(BUILD) if not pattern else ():
        missed += goal is not None and value > goal
        print(f"{name:46} {value:9.1f} {unit:4} {verdict_of(value, goal)}", flush=True)
    if keep:
        pathlib.Path(keep).write_text(json.dumps(runs, indent=1))
    print(f"{len(runs)} benchmarks, {missed} goals missed or benchmarks failed")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
