"""Switches that answer anything but what they should: esmcmap says so of each, and the others stay fresh."""

import json
import os
import pathlib
import signal
import socket
import threading
import time

import pytest
from lab import BIN, build_dir, is_sanitized, wait_until
from scapy.asn1.asn1 import ASN1_INTEGER, ASN1_OID
from scapy.layers.snmp import SNMP, SNMPresponse, SNMPvarbind

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
def test_switches_that_answer_anything_disturb_none_of_the_others(lab, late):
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
        wait_until(lambda: said_of(name)[0] == answer and (words or "") in said_of(name)[1], what=f"{name}: {answer}, {words}")
    assert last()["latin"]["ports"][0]["name"] == "\ufffd\ufffd\ufffd[31m"

    machine, took = late(watch.pid), []
    for quality in ("eec1", "prc", "ssu-a", "prtc", "prc"):
        beside = good.with_name("good.new")
        beside.write_text(clock(quality, 1))
        beside.rename(good)
        began = time.monotonic()
        wait_until(lambda: last()["good"]["quality"] == quality, what=quality)
        took.append(time.monotonic() - began)
    if not is_sanitized(build_dir()):
        assert sorted(took)[-2] < 1.5 + machine.late, took
        assert peak_kib(watch.pid) < 100 * 1024
    watch.expected_status = 3
    watch.send(signal.SIGTERM)
    wait_until(lambda: not watch.alive() and not inside(node), what="nothing is left")


MODULE = "1.3.6.1.4.1.32473.81"


def value(name, number=1):
    return SNMPvarbind(oid=ASN1_OID(f"{MODULE}.{name}"), value=ASN1_INTEGER(number))


# What agents answer each request with, and what is said of them. Random octets: nothing that could be read.
AGENTS = {
    "circle": (lambda asked: [value("2.0")], GARBAGE, "goes round in circles"),
    "empty": (lambda asked: [], SILENT, "no room for a value"),
    "endless": (lambda asked: [value(f"99.{asked}.{n}") for n in range(300)], SILENT, "no answer in time"),
    "types": (lambda asked: [value("1.0"), SNMPvarbind(oid=ASN1_OID("1.3.6.2"), value=ASN1_INTEGER(1))], GARBAGE, "is no text"),
    "range": (lambda asked: [value("10.0", 9), SNMPvarbind(oid=ASN1_OID("1.3.6.2"), value=ASN1_INTEGER(1))], GARBAGE, "out of range"),
    "other": (lambda asked: [SNMPvarbind(oid=ASN1_OID("1.3.6.2"), value=ASN1_INTEGER(1))], SILENT, "has not our MIB"),
    "noise": (None, SILENT, "no answer in time"),
}


def serve_agent(agent, answers):
    """Until the socket is closed."""
    for asked in range(1, 1 << 20):
        request, peer = agent.recvfrom(65535)
        if request == b"":
            return
        for octets in [os.urandom(n) for n in range(1, 60)] if answers is None else [bytes(SNMP(
                community="public", PDU=SNMPresponse(id=SNMP(request).PDU.id, varbindlist=answers(asked))))]:
            agent.sendto(octets, peer)


def test_agents_that_answer_anything_disturb_none_of_the_others(lab):
    node = lab.node("operator", board=None)
    node.path("/run/good.json").write_text(clock("prc", 1))
    lines, threads = ["timeout 4", "switch good command cat /run/good.json"], []
    for port, (name, (answers, _, _)) in enumerate(AGENTS.items(), 1161):
        agent = node.in_network(lambda: socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
        agent.bind(("127.0.0.1", port))
        threads.append((threading.Thread(target=serve_agent, args=(agent, answers)), agent))
        threads[-1][0].start()
        lines.append(f"switch {name} snmp 127.0.0.1:{port} v2c public")
    node.path("/run/switches").write_text("\n".join(lines) + "\n")
    node.path("/run/switches").chmod(0o600)
    done = node.run(f"{BIN}/esmcmap", "/run/switches", "--json", check=False)
    for thread, agent in threads:
        agent.sendto(b"", agent.getsockname())
        thread.join()
        agent.close()
    said = {one["id"]: (one["answer"], one["error"] or "") for one in json.loads(done.stdout)["nodes"]}
    assert said.pop("good") == ("ok", "") and (done.returncode, done.stderr) == (3, "")
    assert [name for name, (_, answer, words) in AGENTS.items() if said[name][0] != answer or words not in said[name][1]] == [], said
