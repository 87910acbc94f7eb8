"""esmcsh and the local terminal: exit statuses, output, refusals, and sessions that get in nobody's way."""

import socket
import subprocess
import time

import pytest
from lab import BIN, Reply

ANSWER = "clock recovery from syncE\n"  # to "show clock recovery-select"


@pytest.fixture
def sw(lab):
    made = lab.switch("sw")
    made.start_esmcd()
    return made


def feed(sw, text, *options):
    return Reply(subprocess.run(sw.enter([f"{BIN}/esmcsh", *options]), input=text, capture_output=True, text=True,
                                timeout=20))


def test_lines_of_the_command_line(sw):
    reply = sw.cli("show clock recovery-select", "conf t", "cl sy gl", "interface p1", "do show clock recovery-select")
    assert (reply.status, reply.out, reply.err) == (0, ANSWER * 2, "")
    assert sw.clock()["Enable global synce"] == "enable"
    assert sw.cli("clock synce global-enable", check=False).status == 1, "each run starts in the exec mode"


@pytest.mark.parametrize("lines, answer", [
    (["show nonsense"], "% Unknown command\n"),
    (["show clock"], "% Incomplete command\n"),
    (["configure terminal", "clock synce s"], "% Ambiguous command\n"),
    (["configure terminal", "clock synce local-priority 256"], "% Unknown command\n"),
    (["configure terminal", "show clock recovery-select"], "% Unknown command\n"),
    (["configure terminal", "interface nowhere", "clock synce enable"], "% Cannot configure on this interface\n"),
])
def test_first_refused_line_ends_the_run(sw, lines, answer):
    before = sw.show("running-config")
    reply = sw.cli(*lines, "end", "configure terminal", "clock synce local-priority 6", check=False)
    assert (reply.status, reply.out, reply.err) == (1, answer, "")
    assert sw.show("running-config") == before


def test_lines_of_standard_input(sw):
    reply = feed(sw, "configure terminal\nclock synce local-priority 77\nend\nshow clock recovery-select")
    assert (reply.status, reply.out, reply.err) == (0, ANSWER, "")
    assert feed(sw, "").status == 0
    refused = feed(sw, "\n\nconfigure terminal\nclock synce local-priority 78\nbad\nclock synce local-priority 79\n")
    assert refused.status == 1
    assert sw.clock()["Device priority"] == "78"
    for length in (1023, 1 << 20):
        assert feed(sw, "x" * length + "\nshow clock recovery-select\n").status == 1
        assert feed(sw, "show clock recovery-select" + " " * length + "\n").status in (0, 1)


def test_daemon_elsewhere_gone_and_dying(sw):
    sw.run("ln", "-s", "/run/esmcd.vty", "/run/other")
    assert feed(sw, "show clock recovery-select\n", "-s", "/run/other").out == ANSWER
    session = subprocess.Popen(sw.enter([f"{BIN}/esmcsh"]), stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                               stderr=subprocess.PIPE, text=True)
    session.stdin.write("show clock recovery-select\n")
    session.stdin.flush()
    assert session.stdout.readline() == ANSWER
    sw.esmcd.kill()
    session.stdin.write("show clock recovery-select\n")
    session.stdin.close()
    assert session.wait(5) == 2
    assert session.stderr.read() != ""
    for options, path in (((), "/run/esmcd.vty"), (("-s", "/run/elsewhere"), "/run/elsewhere")):
        reply = feed(sw, "show clock synce\n", *options)
        assert reply.status == 2 and reply.out == "" and path in reply.err


def test_platform_commands(sw):
    assert sw.show("version").startswith("esmcd version ")
    assert "SSM" in sw.show("memory")
    assert sw.cli("show slow-protocols").status == 0
    sw.cli("debug all")
    assert sw.show("debugging ssm").count(" is on\n") == 4
    assert "all" in sw.show("debugging")
    sw.cli("no debug all")
    assert sw.show("debugging ssm").count(" is on\n") == 0


def test_sessions_that_stall_delay_nobody(sw):
    """Half a line and silence; output that nobody reads; octets that mean nothing; a hang-up in the middle."""
    terminals = [socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) for _ in range(4)]
    for terminal in terminals:
        terminal.connect(str(sw.path("/run/esmcd.vty")))
    half, deaf, noise, gone = terminals
    half.send(b"show clo")
    deaf.setblocking(False)
    try:
        for _ in range(3000):
            deaf.send(b"show running-config\nshow clock synce\nshow memory\n")
    except (BlockingIOError, BrokenPipeError):
        pass  # not taken any more, or hung up on: either is fair
    noise.send(bytes(range(256)) * 64)
    gone.send(b"show clock synce\nshow cl")
    gone.close()
    for _ in range(5):
        began = time.monotonic()
        sw.clock()
        assert time.monotonic() - began < 1
    status = open(f"/proc/{sw.esmcd.pid}/status").read()
    resident = int(status.split("VmRSS:")[1].split()[0])
    assert sw.lab.sanitized or resident < 8192, f"{resident} KiB after sessions that do not read"
    for terminal in terminals:
        terminal.close()
