"""esmcsh and the local terminal: exit statuses, output, refusals, and sessions that get in nobody's way."""

import socket
import stat
import subprocess
import time

import pytest
from lab import BIN, Reply, wait_until


@pytest.fixture
def sw(lab):
    made = lab.switch("sw")
    made.start_esmcd()
    return made


def feed(sw, text, *options):
    return Reply(subprocess.run(sw.enter([f"{BIN}/esmcsh", *options]), input=text, capture_output=True, text=True,
                                timeout=20))


def test_status_and_output_of_good_lines(sw):
    reply = sw.cli("show clock recovery-select", "configure terminal", "clock synce global-enable", "end",
                   "show clock recovery-select")
    assert (reply.status, reply.out, reply.err) == (0, "clock recovery from syncE\n" * 2, "")


def test_the_global_block(sw):
    expected = """--------------------------  Global Synce Clock Configure  --------------------------
Device ClockID                     : 00:00:00:00:00:00:00:00
Enable global synce                : disable
Enable global ssm                  : disable
SSM option mode                    : 1
Device quality                     : DNU
Current quality                    : DNU
Device priority                    : 255
Current selected interface         : N/A
Switch force interface             : N/A
Enable ssm extension               : disable
Clock running state                : FreeRun
Device type                        : Default
--------------  DPLL status  -------------
Selected Clock Valid Status        : Invalid
DPLL running state                 : FreeRun
"""
    assert sw.show("clock synce") == expected
    assert sw.show("clock synce", "nosuch") == ""


@pytest.mark.parametrize("line, answer", [
    ("nonsense", "% Unknown command\n"),
    ("show nonsense", "% Unknown command\n"),
    ("show clock", "% Incomplete command\n"),
    ("show", "% Incomplete command\n"),
    ("sho clo syn nosuch more", "% Unknown command\n"),
    ("clock synce global-enable", "% Unknown command\n"),
])
def test_lines_that_are_no_command(sw, line, answer):
    reply = sw.cli(line, check=False)
    assert (reply.status, reply.out, reply.err) == (1, answer, "")


@pytest.mark.parametrize("line, answer", [
    ("clock synce", "% Incomplete command\n"),
    ("clock synce local-priority 0", "% Unknown command\n"),
    ("clock synce local-priority 256", "% Unknown command\n"),
    ("clock synce local-priority -1", "% Unknown command\n"),
    ("clock synce local-priority 99999999999999999999", "% Unknown command\n"),
    ("clock synce local-priority 1x", "% Unknown command\n"),
    ("clock synce local-p 0x10", "% Unknown command\n"),
    ("clock synce s", "% Ambiguous command\n"),
    ("clock synce local-quality option1 prs", "% Unknown command\n"),
    ("clock synce master-only extra", "% Unknown command\n"),
    ("clock synce local-quality option2 e", "% Incomplete command\n"),
])
def test_configuration_lines_that_are_refused_change_nothing(sw, line, answer):
    before = sw.show("running-config")
    reply = sw.cli("configure terminal", line, check=False)
    if answer == "% Incomplete command\n" and line.endswith(" e"):
        # Not incomplete after all: "e" can only be eec2, which is shortened to what is unambiguous.
        assert reply.status == 0 and sw.clock()["Device quality"] == "EEC2"
        return
    assert reply.status == 1 and reply.out == answer
    assert sw.show("running-config") == before


def test_shortened_keywords_and_values(sw):
    sw.cli("conf t", "cl sy gl", "cl sy ss en", "cl sy local-q option1 ee", "cl sy local-p 9", "cl sy mas")
    sw.wait_clock(synce="enable", ssm="enable", device_quality="EEC1", priority="9", type="Master-only")


def test_first_refused_line_ends_the_run(sw):
    reply = sw.cli("configure terminal", "clock synce local-priority 5", "bad line", "clock synce local-priority 6",
                   check=False)
    assert reply.status == 1 and reply.out == "% Unknown command\n"
    assert sw.clock()["Device priority"] == "5"


def test_refusal_by_a_command_counts_too(sw):
    reply = sw.cli("configure terminal", "interface nowhere", "clock synce enable", "clock synce priority 4", check=False)
    assert reply.status == 1
    assert reply.out == "% Cannot configure on this interface\n"
    assert "nowhere" not in sw.show("running-config")


def test_lines_from_standard_input(sw):
    reply = feed(sw, "configure terminal\nclock synce local-priority 77\nend\nshow clock recovery-select\n")
    assert (reply.status, reply.out, reply.err) == (0, "clock recovery from syncE\n", "")
    assert sw.clock()["Device priority"] == "77"
    assert feed(sw, "show clock recovery-select").out == "clock recovery from syncE\n"
    assert feed(sw, "").status == 0
    refused = feed(sw, "\n\nconfigure terminal\nclock synce local-priority 78\nbad\nclock synce local-priority 79\n")
    assert refused.status == 1
    assert sw.clock()["Device priority"] == "78"


def test_daemon_that_is_not_there(sw):
    sw.esmcd.stop()
    reply = sw.cli("show clock synce", check=False)
    assert reply.status == 2 and reply.out == "" and "/run/esmcd.vty" in reply.err
    reply = feed(sw, "show clock synce\n", "-s", "/run/elsewhere")
    assert reply.status == 2 and reply.out == "" and "/run/elsewhere" in reply.err


def test_other_socket_path(sw):
    done = sw.run("sh", "-c", f"ln -s /run/esmcd.vty /run/other && {BIN}/esmcsh -s /run/other -c 'show clock recovery-select'")
    assert done.stdout == "clock recovery from syncE\n"


def test_daemon_that_dies_under_a_session(sw):
    session = subprocess.Popen(sw.enter([f"{BIN}/esmcsh"]), stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                               stderr=subprocess.PIPE, text=True)
    session.stdin.write("show clock recovery-select\n")
    session.stdin.flush()
    assert session.stdout.readline() == "clock recovery from syncE\n"
    sw.esmcd.kill()
    session.stdin.write("show clock recovery-select\n")
    session.stdin.close()
    assert session.wait(5) == 2
    assert session.stderr.read() != ""


def test_modes(sw):
    sw.cli("configure terminal", "interface p1", "exit", "interface p2", "end", "show clock recovery-select")
    assert sw.cli("configure terminal", "show clock recovery-select", check=False).status == 1
    assert sw.cli("configure terminal", "do show clock recovery-select").out == "clock recovery from syncE\n"
    assert sw.cli("configure terminal", "interface p1", "do show clock recovery-select").out == "clock recovery from syncE\n"
    # Debug commands are entered in both modes.
    sw.cli("debug ssm event", "configure terminal", "debug ssm cli", "end", "show debugging ssm")
    assert "event" in sw.show("debugging ssm") and "cli" in sw.show("debugging ssm")
    # Each run starts in the exec mode.
    assert sw.cli("clock synce global-enable", check=False).status == 1


def test_platform_commands(sw):
    assert sw.show("version").startswith("esmcd version ")
    memory = sw.show("memory")
    assert "910" in memory or "clock" in memory.lower() or "SSM" in memory
    assert sw.cli("show slow-protocols").status == 0
    sw.cli("debug all")
    assert sw.show("debugging ssm").count(" is on\n") == 4
    assert "all" in sw.cli("show debugging").out
    sw.cli("no debug all")
    assert sw.show("debugging ssm").count(" is on\n") == 0


def test_socket_mode(sw):
    assert stat.S_IMODE(sw.path("/run/esmcd.vty").stat().st_mode) == 0o660


def test_fifty_sessions_at_once(sw):
    runs = [subprocess.Popen(sw.enter([f"{BIN}/esmcsh", "-c", "show clock recovery-select"] +
                                      ["-c", "show clock synce"] * 5), stdout=subprocess.PIPE, stderr=subprocess.PIPE)
            for _ in range(50)]
    outs = [run.communicate(timeout=30) for run in runs]
    refused = [err for run, (_, err) in zip(runs, outs) if run.returncode != 0]
    complete = [out for run, (out, _) in zip(runs, outs) if run.returncode == 0]
    # A limit of sessions may turn some away, but whoever got in was served whole.
    assert len(complete) >= 16, refused[:3]
    assert all(out.count(b"Device ClockID") == 5 for out in complete)
    sw.clock()


def raw_terminal(sw):
    made = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    made.connect(str(sw.path("/run/esmcd.vty")))
    return made


def test_sessions_that_stall_delay_nobody(sw):
    """Half a line and silence; output that nobody reads; octets that mean nothing; a hang-up in the middle."""
    half, deaf, noise, gone = (raw_terminal(sw) for _ in range(4))
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
    if not sw.lab.sanitized:
        assert resident < 8192, f"{resident} KiB after sessions that do not read"
    for terminal in (half, deaf, noise):
        terminal.close()
    assert sw.esmcd.alive()


@pytest.mark.parametrize("length", [255, 256, 1023, 1024, 4096, 65536, 1 << 20])
def test_lines_of_any_length(sw, length):
    reply = feed(sw, "x" * length + "\nshow clock recovery-select\n")
    assert reply.status == 1
    reply = feed(sw, "show clock recovery-select" + " " * length + "\n")
    assert reply.status in (0, 1)
    assert sw.cli("show clock recovery-select").out == "clock recovery from syncE\n"


def test_interface_name_that_looks_like_a_format(sw):
    sw.cli("configure terminal", "interface %s%n", check=False)
    sw.show("running-config")
    assert sw.cli("show clock synce %s%s%n").out == ""
    wait_until(lambda: sw.clock()["Device type"] == "Default", 2)
