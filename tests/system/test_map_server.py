"""esmcmap's server against those who want too much of it, and its exit status for scripts."""

import contextlib
import json
import pathlib
import signal
import socket
import subprocess
import time
import urllib.request

import pytest
from lab import ROOT, build_dir, wait_until

from map_demo import Map

PROGRAM = build_dir() / "bin/esmcmap"
pytestmark = pytest.mark.skipif(not PROGRAM.exists(), reason="no esmcmap in this build")

MASTER = {"running_state": "master", "synce_enabled": True, "current_quality": "prc", "ports": [
    {"name": "p1", "address": "02:00:00:00:00:01", "synce_enabled": True, "link_up": True, "sent_quality": "prc"}]}
HEAD = b"GET /%s HTTP/1.1\r\nHost: %s\r\n"


def switches(folder, **said):
    """The file of switches that say these objects, each by a command that prints it."""
    for name, answer in said.items():
        (folder / name).write_text(json.dumps(answer))
    file = folder / "switches"
    file.write_text("timeout 20\n" + "".join(f"switch {name} command cat '{folder / name}'\n" for name in said))
    return file


@pytest.fixture
def served(tmp_path):
    made = Map(switches(tmp_path, A=MASTER))
    wait_until(lambda: answers(made) == 200, what="a state")
    yield made
    made.stop()


def connect(served, count=1, data=b""):
    port = int(served.url.rsplit(":", 1)[1].strip("/"))
    made = [socket.create_connection(("127.0.0.1", port), 20) for _ in range(count)]
    for one in made:
        one.sendall(data)
    return made


def answers(served, path=b"state", host=b"127.0.0.1", method=b"GET"):
    [one] = connect(served, 1, method + b" /" + path + b" HTTP/1.1\r\nHost: " + host + b"\r\nConnection: close\r\n\r\n")
    with one:
        return int(one.recv(100).split()[1])


def peak_kib(served):
    status = pathlib.Path(f"/proc/{served.process.pid}/status").read_text()
    return next(int(line.split()[1]) for line in status.splitlines() if line.startswith("VmHWM"))


@pytest.mark.timing
@pytest.mark.parametrize("data", [b"", HEAD % (b"state", b"127.0.0.1"), HEAD % (b"events", b"127.0.0.1") + b"\r\n"],
                         ids=["idle", "half a head", "streams that nobody reads"])
def test_connections_that_hold_places_keep_nobody_out(served, data):
    held = connect(served, 300, data)
    began = time.monotonic()
    assert answers(served) == 200
    assert time.monotonic() - began < 6, "a request waited for those that say nothing"
    for one in held:
        one.close()


@pytest.mark.parametrize("first, more", [(b"GET /", b"x" * 60000), (HEAD % (b"state", b"127.0.0.1"), b"A: " + b"x" * 60000 + b"\r\n"),
                                         (b"POST /state HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n", b"ea60\r\n" + b"x" * 60000 + b"\r\n")],
                         ids=["line", "head", "body"])
def test_a_request_without_end_is_ended(served, first, more):
    before = peak_kib(served)
    [one] = connect(served, 1, first)
    sent = 0
    with contextlib.suppress(ConnectionError):
        while sent < 100 << 20:
            sent += one.send(more)
    one.close()
    assert sent < 100 << 20
    assert answers(served) == 200
    assert peak_kib(served) - before < 8192


def test_only_looking_and_only_by_the_name_that_it_has(served):
    for method in (b"POST", b"PUT", b"DELETE", b"OPTIONS"):
        assert answers(served, method=method) == 405
    for host in (b"evil.example", b"127.0.0.1.evil.example", b"localhost.example", b"["):
        assert answers(served, host=host) == 403
    assert answers(served, host=b"[::1]:1") == answers(served, host=b"localhost") == 200
    for path in (b"../../../etc/passwd", b"%2e%2e/%2e%2e/etc/passwd", b"/etc/passwd", b"page.css/../state", b"state?seq=99999"):
        assert answers(served, path) == 404
    assert answers(served, b"state?seq=1e9") == 400
    for path in (b"state", b"metrics"):  # whole, not once for each range
        assert answers(served, path, b"localhost\r\nRange: bytes=" + b",".join([b"0-"] * 1000)) == 200


def test_exit_status_and_text_for_scripts(tmp_path):
    def run(*words, **said):
        done = subprocess.run([PROGRAM, switches(tmp_path, **said), *words], capture_output=True, text=True, timeout=20)
        return done.returncode, done.stdout
    port = MASTER["ports"][0]
    follower = {"running_state": "lock", "dpll_state": "lock", "synce_enabled": True, "current_quality": "prc", "source": "p1", "ports": [
        dict(port, address="02:00:00:00:00:02", neighbour=port["address"], received_quality="prc", sent_quality="dnu", source=True)]}
    assert run(A=MASTER, B=follower)[0] == 0
    lost = dict(MASTER, running_state="holdover", current_quality="eec1")
    status, text = run(A=lost, B=follower)
    assert status == 1 and "Island: A is in holdover, followed by B" in text and "Claim: A says PRC but has EEC1" in text
    circle = dict(lost, running_state="lock", source="p1", ports=[dict(port, neighbour="02:00:00:00:00:02")])
    status, text = run(A=circle, B=follower)
    assert status == 1 and "LOOP: A follows B follows A" in text
    status, text = run(A=MASTER, B="hello")
    assert status == 3 and "B" in text and "it is no JSON object" in text
    assert run("--json", "--svg", "-", A=MASTER)[0] == 2
    assert run("--svg", str(tmp_path / "map.svg"), A=MASTER, B=follower)[0] == 0
    assert (tmp_path / "map.svg").read_text().count("marker-end") == 1
    assert json.loads(run("--json", A=MASTER)[1])["nodes"][0]["state"] == "master"


def test_the_demo_with_a_map():
    demo = subprocess.Popen(["/usr/bin/python3", ROOT / "tools/map_demo.py", "--switches", "4", "--at", "127.0.0.1:0"],
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
    try:
        said = next(line for line in demo.stdout if line.startswith("The map: "))

        def roots():
            with contextlib.suppress(OSError), urllib.request.urlopen(said.split()[-1] + "state", timeout=5) as reply:
                return {one["id"]: one["root"] for one in json.load(reply)["nodes"]}
        wait_until(lambda: roots() == dict.fromkeys("ABCD", "A"), what="all follow A")
    finally:
        demo.send_signal(signal.SIGINT)
        rest = demo.stdout.read()
    assert demo.wait(60) == 0, rest
