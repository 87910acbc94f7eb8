"""esmcsh and the local terminal: exit statuses, output, refusals."""

import subprocess

import pytest
from lab import BIN, Reply

ANSWER = "clock recovery from syncE\n"  # to "show clock recovery-select"
ASK = "show clock recovery-select\n"


@pytest.fixture
def running(sw):
    sw.start_esmcd()
    return sw


def feed(sw, text, *options):
    return Reply(subprocess.run(sw.enter([f"{BIN}/esmcsh", *options]), input=text, capture_output=True, text=True,
                                timeout=20))


def test_lines_of_the_command_line(running):
    reply = running.cli("show clock recovery-select", "conf t", "cl sy gl", "interface p1",
                        "do show clock recovery-select", "show clock recovery-select", "show version | count")
    assert (reply.status, reply.out, reply.err) == (0, ANSWER * 3 + "1\n", "")
    assert running.clock()["Enable global synce"] == "enable"
    assert running.cli("clock synce global-enable", check=False).status == 1, "each run starts in the exec mode"
    assert running.run(f"{BIN}/esmcsh", "-c", "configure terminal", "-t", "clock synce g").stdout == "global-enable\n"
    # The first refused line ends the run; what could stand there is said on standard error.
    for lines, answer, could in ((["show nonsense"], "% Unknown command\n", "running-config"),
                                 (["show clock"], "% Incomplete command\n", "recovery-select"),
                                 (["terminal monitor"], "% A script's session can't show the log\n", ""),
                                 (["configure terminal", "clock synce s"], "% Ambiguous command\n", "slave-only"),
                                 (["configure terminal", "clock synce local-priority 256"], "% Unknown command\n", "<1-255>"),
                                 (["configure terminal", "clear clock"], "% Unknown command\n", "hostname"),
                                 (["configure terminal", "interface p1", "password no secret"], "% Unknown command\n", ""),
                                 (["configure terminal", "interface nowhere", "clock synce enable"],
                                  "% Cannot configure on this interface\n", "")):
        before = running.show("running-config")
        reply = running.cli(*lines, "end", "configure terminal", "clock synce local-priority 6", check=False)
        assert (reply.status, reply.out, bool(reply.err)) == (1, answer, bool(could)), lines
        assert could in reply.err and (not could or reply.err.startswith(f"  {lines[-1]}\n  "))
        assert running.show("running-config") == before


def test_lines_of_standard_input(running):
    reply = feed(running, "configure terminal\nclock synce local-priority 77\nend\nshow clock recovery-select")
    assert (reply.status, reply.out, reply.err) == (0, ANSWER, "") and feed(running, "").status == 0
    refused = feed(running, "\n\nconfigure terminal\nclock synce local-priority 78\nbad\nclock synce ssm enable\n")
    assert refused.status == 1 and running.clock()["Enable global ssm"] == "disable"
    assert running.clock()["Device priority"] == "78"
    assert feed(running, "x" * (1 << 20) + "\n" + ASK).status == 1


def test_daemon_elsewhere_gone_and_dying(running):
    running.run("ln", "-s", "/run/esmcd.vty", "/run/other")
    assert feed(running, ASK, "-s", "/run/other").out == ANSWER
    session = subprocess.Popen(running.enter([f"{BIN}/esmcsh"]), stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                               stderr=subprocess.PIPE, text=True)
    session.stdin.write(ASK)
    session.stdin.flush()
    assert session.stdout.readline() == ANSWER
    running.esmcd.kill()
    session.stdin.write(ASK)
    session.stdin.close()
    assert session.wait(20) == 2
    assert session.stderr.read() != ""
    for options, path in (((), "/run/esmcd.vty"), (("-s", "/run/elsewhere"), "/run/elsewhere")):
        reply = feed(running, "show clock synce\n", *options)
        assert reply.status == 2 and reply.out == "" and path in reply.err
