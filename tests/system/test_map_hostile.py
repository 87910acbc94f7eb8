"""Switches that answer anything but what they should: esmcmap says so of each, and the others stay fresh."""

import json
import os
import pathlib
import signal
import time

import pytest
from lab import BIN, build_dir, is_sanitized, wait_until

pytestmark = pytest.mark.skipif(not (build_dir() / "bin/esmcmap").exists(), reason="esmcmap is not built: its libraries are not there")

SILENT, GARBAGE = "silent", "garbage"
# What each prints, and what is said of it.
HOSTILE = {
    "noise": ("head -c 100000 /dev/urandom", GARBAGE, "no JSON"),
    "huge": ("yes aaaaaaaaaaaaaaa | head -c 100000000", GARBAGE, "longer than 4 MiB"),
    "nothing": ("sleep 1000", SILENT, "no answer in time"),
    "empty": ("true", GARBAGE, "empty"),
    "closed": ("exec >&- 2>&-; sleep 1000", SILENT, "no answer in time"),
    "child": ("sleep 1000 & cat /run/good.json", SILENT, "no answer in time"),
    "deaf": ("trap '' TERM HUP INT; while :; do sleep 1; done", SILENT, "no answer in time"),
    "deep": ("head -c 4000000 /dev/zero | tr '\\0' '['", GARBAGE, "nested too deep"),
    "wide": ("printf '[0'; yes ,0,[],[] | head -c 4000000; printf ']'", GARBAGE, "too many values"),
    "killed": ("cat /run/good.json; kill -SEGV $$", SILENT, "ended by signal 11"),
    "failed": ("cat /run/good.json; echo 'no such login' >&2; exit 3", SILENT, "no such login"),
    "loud": ("yes error >&2", SILENT, ""),
    "crowd": ("cat /run/crowd.json", GARBAGE, "5000 ports"),
    "absent": (None, SILENT, "No such file"),
    "latin": ("sed 's/p1/\\xff\\xfe\\\\u001b[31m/' /run/good.json", "ok", None),
}


def clock(quality, ports):
    port = {"address": None, "neighbour": None, "synce_enabled": True, "link_up": True, "received_quality": "prc", "sent_quality": "dnu"}
    return json.dumps({"running_state": "master", "synce_enabled": True, "dpll_state": "lock", "current_quality": quality,
                       "local_quality": "prc", "source": None, "ports": [{"name": f"p{n}", **port} for n in range(1, ports + 1)]})


def inside(node):
    """The processes in the node's network, but the one that holds it."""
    ours, found = os.stat(f"/proc/{node.pid}/ns/net").st_ino, []
    for entry in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            if os.stat(entry / "ns/net").st_ino == ours and int(entry.name) != node.pid:
                found.append((entry / "cmdline").read_bytes())
        except OSError:
            pass  # it ended meanwhile
    return [command for command in found if command]


def peak_kib(pid):
    return int(next(line for line in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines() if line.startswith("VmHWM")).split()[1])


@pytest.mark.timing
def test_switches_that_answer_anything_disturb_none_of_the_others(lab):
    node = lab.node("operator", board=None)
    good = node.path("/run/good.json")
    good.write_text(clock("prc", 1))
    node.path("/run/crowd.json").write_text(clock("prc", 5000))
    lines = ["timeout 2", "switch good command cat /run/good.json"]
    for name, (script, _, _) in HOSTILE.items():
        node.path(f"/run/{name}").write_text(f"{script}\n")
        lines.append(f"switch {name} command " + (f"sh /run/{name}" if script else "/no/such/program"))
    node.path("/run/switches").write_text("\n".join(lines) + "\n")
    watch = node.spawn("esmcmap", [f"{BIN}/esmcmap", "/run/switches", "--watch", "--json"])

    def last():
        states = [line for line in watch.text().splitlines(keepends=True) if line.endswith("\n")]
        return {one["id"]: one for one in json.loads(states[-1])["nodes"]} if states else {}

    def said_of(name):
        one = last().get(name, {})
        return one.get("answer"), one.get("error") or ""
    for name, (_, answer, words) in HOSTILE.items():
        wait_until(lambda: said_of(name)[0] == answer and (words or "") in said_of(name)[1], 10, f"{name}: {answer}, {words}")
    assert last()["latin"]["ports"][0]["name"] == "\ufffd\ufffd\ufffd[31m"

    late = []
    for quality in ("eec1", "prc", "ssu-a", "prtc", "prc"):
        beside = good.with_name("good.new")
        beside.write_text(clock(quality, 1))
        beside.rename(good)
        began = time.monotonic()
        wait_until(lambda: last()["good"]["quality"] == quality, 5, quality)
        late.append(time.monotonic() - began)
    if not is_sanitized(build_dir()):
        assert sorted(late)[-2] < 1.5, late
        assert peak_kib(watch.pid) < 100 * 1024
    watch.expected_status = 3
    watch.send(signal.SIGTERM)
    wait_until(lambda: not watch.alive() and not inside(node), 5, "nothing is left")
