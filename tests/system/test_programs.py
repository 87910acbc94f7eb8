"""esmcd and nsmd as processes: options, exit statuses, their files, signals, daemon mode, missing rights."""

import contextlib
import os
import pathlib
import re
import select
import signal
import stat
import time

import pytest
from lab import BIN, PATIENCE, wait_until
from watch import process_status, status_of
from wire import PRC, Neighbour

# program -> the files that it makes, with their modes
FILES = {"esmcd": {"/run/esmcd.pid": 0o644, "/run/esmcd.vty": 0o660}, "nsmd": {"/run/nsmd.sock": 0o660}}
LOCKS = {"esmcd": "/var/run/esmcd.lock", "nsmd": "/run/nsmd.lock"}
PROGRAMS = pytest.mark.parametrize("program", FILES)


def run(sw, program, *options):
    done = sw.run(f"{BIN}/{program}", *options, check=False, timeout=10)
    return done.returncode, done.stdout, done.stderr


def assert_gone(sw, program):
    assert [path for path in FILES[program] if sw.path(path).exists()] == []


@pytest.mark.parametrize("program, words, status, out, err", [
    ("esmcd", "--help", 0, r"Usage : esmcd \[OPTION...\]\n(?s:.*)Report bugs to support\n", ""),
    ("esmcd", "--version", 0, r"esmcd version \S+\n", ""),
    ("esmcd", "-d -x", 1, "", ".+\nTry `esmcd --help' for more information.\n"),
    ("nsmd", "--help", 0, r"(?s:.*)--port(?s:.*)--grace-s(?s:.*)", ""),
    ("nsmd", "--version", 0, r"nsmd version \S+\n", ""),
    ("nsmd", "--dpll quartz", 1, "", "(?s:.*)bad value 'quartz' for --dpll(?s:.*)"),
])
def test_options_that_start_nothing(sw, program, words, status, out, err):
    done = run(sw, program, *words.split())
    assert done[0] == status and re.fullmatch(out, done[1]) and re.fullmatch(err, done[2]), done
    assert_gone(sw, program)


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
@PROGRAMS
def test_files_live_as_long_as_the_program(sw, program, number, late):
    daemon = sw.start_esmcd() if program == "esmcd" else sw.start_nsmd()
    for path, mode in FILES[program].items():
        assert stat.S_IMODE(sw.path(path).stat().st_mode) == mode, path
    assert program == "nsmd" or sw.path("/run/esmcd.pid").read_text() == f"{daemon.pid}\n"
    # Signals that end nothing; how a line of the log looks.
    daemon.send(signal.SIGHUP)
    if program == "esmcd":
        for other in (signal.SIGPIPE, signal.SIGUSR2, signal.SIGTSTP, signal.SIGTTIN, signal.SIGTTOU, signal.SIGUSR1):
            daemon.send(other)
        daemon.wait_log("SIGUSR1 on received")
        daemon.wait_log("SIGHUP received")
        line = next(line for line in daemon.text().splitlines() if "SIGHUP received" in line)
        assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}(Z|[+-]\d\d:?\d\d) info : SIGHUP received", line)
        sw.clock()
    else:
        assert "clock" in status_of(sw)
    machine, ended = late(daemon.pid), os.pidfd_open(daemon.pid)
    began = time.monotonic()
    daemon.send(number)
    select.select([ended], [], [], PATIENCE)
    took = time.monotonic() - began
    os.close(ended)
    assert daemon.wait() == 0
    # It waits for its own children, who wait for a processor too.
    assert took < (2.0 if sw.lab.sanitized else 0.1) + 3 * machine.late, f"took {took * 1000:.0f} ms"
    assert_gone(sw, program)
    assert program == "nsmd" or daemon.text().count("Terminating on signal") == 1


def test_the_file_is_put_in_force_again(enabled):
    """What it does not say is undone, the source does not notice; one that can't be taken as it stands changes nothing."""
    neighbour, path = Neighbour(enabled.t1, PRC), enabled.path("/etc/esmcd.conf")
    enabled.wait_clock(source="p1", quality="PRC")
    enabled.cli("write")
    saved = path.read_text()
    enabled.configure("hostname other", "clock synce non-revertive", "interface p2", "clock synce priority 7")
    changed = enabled.cli("show running-config").out
    for text, why in ((saved + "clock synce nonsense\n", "refused: clock synce ...\n% Nothing was changed: 1 lines"),
                      (None, "% Can't read /etc/esmcd.conf: No such file or directory\n")):
        path.unlink() if text is None else path.write_text(text)
        refused = enabled.cli("configure replace startup-config", check=False)
        assert refused.status != 0 and why in refused.out and enabled.cli("show running-config").out == changed
    path.write_text(saved)
    neighbour.keep()
    enabled.t2.drain()
    before = enabled.nsmd.text().count("request:")
    enabled.cli("configure replace startup-config")
    assert enabled.cli("show running-config diff").out == ""
    seen = [frame for frame in enabled.t2.frames(1.5) if neighbour.keep()]
    assert seen and {(frame.quality, frame.event) for frame in seen} == {(PRC, False)}
    assert enabled.nsmd.text().count("request:") == before
    enabled.wait_clock(source="p1")


def test_signal_during_start_ends_cleanly(sw):
    """At whatever point of start-up the signal comes: after the handlers are set it ends with status 0."""
    for delay in (0.001, 0.003, 0.006, 0.01, 0.02, 0.04, 0.08):
        daemon = sw.start_esmcd(wait=False)
        time.sleep(delay)  # the point of the test is where in start-up the signal falls
        daemon.expected_status = daemon.stop(signal.SIGTERM)
        assert daemon.expected_status in (0, -signal.SIGTERM), delay
    assert_gone(sw, "esmcd")


def pids_in(node, name):
    """Processes of that name in the node's network, by the kernel's account, but for their children."""
    space, parents = os.readlink(f"/proc/{node.pid}/ns/net"), {}
    for entry in pathlib.Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):  # it ended meanwhile
            status = process_status(entry.name)
            if status["Name"] == name and os.readlink(entry / "ns/net") == space:
                parents[int(entry.name)] = int(status["PPid"])
    return [pid for pid, parent in parents.items() if parent not in parents]


@PROGRAMS
def test_daemon_mode(sw, program):
    """The parent ends once everything is open; the caller's pipes are not held on to; failures show in its status."""
    began = time.monotonic()
    status, _, err = run(sw, program, "-d")
    assert status == 0, err
    assert time.monotonic() - began < 8, "the caller's pipes were kept open"
    if program == "esmcd":
        wait_until(lambda: sw.path("/run/esmcd.vty").exists() and sw.cli(check=False).status == 0, what="it answers")
    (pid,) = pids_in(sw, program)
    try:
        wait_until(lambda: process_status(pid)["NoNewPrivs"] == "1", what="rights are reduced in this mode too")
        assert os.getsid(pid) == pid and os.readlink(f"/proc/{pid}/cwd") == "/"
        assert {os.readlink(f"/proc/{pid}/fd/{fd}") for fd in range(3)} == {"/dev/null"}
        if program == "esmcd":
            assert sw.path("/run/esmcd.pid").read_text() == f"{pid}\n"
        assert_refused(sw, program)
    finally:
        os.kill(pid, signal.SIGTERM)
        wait_until(lambda: not pids_in(sw, program), what="the daemon ends")
    assert_gone(sw, program)


def assert_refused(sw, program):
    """A second one, in either mode and short of descriptors at any point of its start, touches nothing of the first's."""
    def files():
        return {path.name: (path.stat().st_ino, path.stat().st_mtime_ns) for path in sw.path("/run").glob(program + "*")}
    before = files()
    assert set(before) >= {path.removeprefix("/run/") for path in FILES[program]}
    for options, limit in [("", 1024), ("-d", 1024), *(("", limit) for limit in range(3, 12))]:
        second = sw.run("prlimit", f"--nofile={limit}", f"{BIN}/{program}", *options.split(), check=False, timeout=10)
        assert second.returncode not in (0, 77) and files() == before, (options, limit, second)
        if limit == 1024:
            assert second.returncode == 1 and second.stderr.count("\n") == 1, second
            assert f" error another one runs already: {LOCKS[program]}\n" in second.stderr


@PROGRAMS
def test_a_second_one_touches_nothing_and_a_killed_one_is_followed(sw, program):
    first = sw.start_esmcd() if program == "esmcd" else sw.start_nsmd()
    first.send(signal.SIGSTOP)  # a daemon that is only slow is one still
    try:
        assert_refused(sw, program)
    finally:
        first.send(signal.SIGCONT)
    first.kill()
    assert sw.path([*FILES[program]][-1]).exists()
    sw.start_esmcd() if program == "esmcd" else sw.start_nsmd("--dpll", "sim").wait_log("serves /run/nsmd.sock")


def test_without_the_right_to_packet_sockets(sw):
    done = sw.run("setpriv", "--bounding-set=-net_raw", "--inh-caps=-net_raw", f"{BIN}/esmcd", check=False, timeout=10)
    assert done.returncode == 255
    assert all(said in done.stderr for said in ("open_ssm: Error opening socket", "Open ssm error\n", "SSM start fail"))
    assert_gone(sw, "esmcd")
