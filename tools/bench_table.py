"""Runs the benchmarks of build/release and prints them as one table.

usage: bench/run [--json FILE] [FILTER]

A benchmark reports what it measured as counters: `ns_per_WHAT` is the daemon's cost, `BARE_ns` that of a bare loop
run in turn with it, and `x_BARE` the ratio of the two. A benchmark without such counters is printed with its time
alone. FILTER is a regular expression over the benchmarks' names; --json keeps the raw figures.
"""

import json
import os
import pathlib
import platform
import re
import subprocess
import sys
import tempfile
import time

BUILD = pathlib.Path(os.environ.get("ESMC_BUILD") or pathlib.Path(__file__).resolve().parent.parent / "build" / "release")

# (name, counter, goal): the ratio or the nanoseconds that a row should not exceed.
GOALS = [
    (r"^receive_to_decision/ports:16/ext:\d", "x_epoll_recvfrom", 1.0),
    (r"^fan_out/ports:\d+", "x_sendto", 1.15),
    (r"^selection/ports:(16|64|255)/ext:0", "ns_per_port", 3.0),
]


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
    if costs and costs[0] == "ns_per_port" and ours < 1e-3:
        ours *= 1e9  # reported in seconds by an inverted rate
    what = costs[0][3:].replace("_", " ") if costs else "per call"
    ratios = [key for key in run if key.startswith("x_")]
    for key in ratios:
        yield name, what, ours, (key[2:], run.get(key[2:] + "_ns")), run[key], goal_of(name, key)
    if not ratios:
        yield name, what, ours, None, None, goal_of(name, costs[0]) if costs else None


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
                verdict = "" if goal is None else f"<= {goal:g} {'ok' if value <= goal else 'MISSED'}"
                missed += goal is not None and value > goal
                print(f"{name:36} {ours:9.1f} ns {what:10} {bare_name:>18} "
                      f"{'' if bare_ns is None else f'{bare_ns:7.1f} ns':>10} "
                      f"{'' if ratio is None else f'{ratio:.2f}':>7}  {verdict}", flush=True)
    if not runs:
        sys.exit("no benchmark was run")
    if keep:
        pathlib.Path(keep).write_text(json.dumps(runs, indent=1))
    print(f"{len(runs)} benchmarks, {missed} goals missed or benchmarks failed")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
