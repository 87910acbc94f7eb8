"""The programs as processes: options, exit statuses, pid file, signals, daemon mode, missing rights."""

import os
import re
import signal
import stat
import time

import pytest
from lab import BIN, wait_until

USAGE = """Usage : esmcd [OPTION...]
Daemon which manages SSM 

-d, --daemon       Runs in daemon mode
-f, --config_file  Set configuration file name
-P, --vty_port     Set vty's port number
-v, --version      Print program version
-h, --help         Display this help and exit

Report bugs to support
"""
HINT = "Try `esmcd --help' for more information.\n"


@pytest.fixture
def sw(lab):
    return lab.switch("sw")


def esmcd(node, *options):
    return node.run(f"{BIN}/esmcd", *options, check=False, timeout=10)


@pytest.mark.parametrize("options", [["-h"], ["--help"], ["-h", "-v"], ["-d", "-h", "-x"]])
def test_help(sw, options):
    done = esmcd(sw, *options)
    assert (done.returncode, done.stdout, done.stderr) == (0, USAGE, "")


@pytest.mark.parametrize("options", [["-v"], ["--version"], ["-v", "-h"]])
def test_version(sw, options):
    done = esmcd(sw, *options)
    assert done.returncode == 0 and done.stderr == ""
    assert re.fullmatch(r"esmcd version \S+\n", done.stdout)


@pytest.mark.parametrize("options, complains", [
    (["-r"], False), (["-x"], True), (["--nonsense"], True), (["-f"], True), (["-P"], True), (["-x", "-h"], True),
])
def test_bad_option_gets_a_hint(sw, options, complains):
    done = esmcd(sw, *options)
    assert done.returncode == 1 and done.stdout == ""
    assert done.stderr.endswith(HINT)
    assert (done.stderr != HINT) == complains


def pid_file(sw):
    return sw.path("/run/esmcd.pid")


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_pid_file_lives_as_long_as_the_daemon(sw, number):
    daemon = sw.start_esmcd()
    assert pid_file(sw).read_text() == f"{daemon.pid}\n"
    assert stat.S_IMODE(pid_file(sw).stat().st_mode) == 0o644
    began = time.monotonic()
    status = daemon.stop(number)
    took = time.monotonic() - began
    assert status == 0
    assert took < (2.0 if sw.lab.sanitized else 0.1), f"took {took * 1000:.0f} ms"
    assert not pid_file(sw).exists()
    assert not sw.path("/run/esmcd.vty").exists()
    assert daemon.text().count("Terminating on signal") == 1


def test_hangup_and_user_signal_are_only_logged(sw):
    daemon = sw.start_esmcd()
    before = sw.clock()
    daemon.send(signal.SIGHUP)
    daemon.wait_log("SIGHUP received")
    daemon.send(signal.SIGUSR1)
    daemon.wait_log("SIGUSR1 on received")
    daemon.send(signal.SIGHUP)
    daemon.wait_log("SIGHUP received", count=2)
    assert sw.clock() == before and pid_file(sw).exists()


def test_ignored_signals(sw):
    daemon = sw.start_esmcd()
    for number in (signal.SIGPIPE, signal.SIGUSR2, signal.SIGTSTP, signal.SIGTTIN, signal.SIGTTOU):
        daemon.send(number)
    sw.clock()
    assert daemon.alive()


def test_signal_during_start_ends_cleanly(sw):
    """At whatever point of start-up the signal comes: after the handlers are set it ends with status 0."""
    statuses = set()
    for delay in (0.001, 0.003, 0.006, 0.01, 0.02, 0.04, 0.08):
        daemon = sw.start_esmcd(wait=False)
        time.sleep(delay)  # the point of the test is where in start-up the signal falls
        daemon.expected_status = daemon.stop(signal.SIGTERM)
        statuses.add(daemon.expected_status)
    assert statuses <= {0, -signal.SIGTERM}, statuses
    assert not pid_file(sw).exists()


def test_log_line_format(sw):
    daemon = sw.start_esmcd()
    daemon.send(signal.SIGHUP)
    daemon.wait_log("SIGHUP received")
    line = next(line for line in daemon.text().splitlines() if "SIGHUP received" in line)
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}(Z|[+-]\d\d:?\d\d) info : SIGHUP received", line), line


def test_daemon_mode(sw):
    parent = sw.spawn("esmcd", [f"{BIN}/esmcd", "-d"])
    assert parent.wait() == 0
    wait_until(lambda: sw.path("/run/esmcd.vty").exists() and sw.cli(check=False).status == 0, 5, "the child answers")
    pid = int(pid_file(sw).read_text())
    try:
        assert pid != parent.pid
        assert os.readlink(f"/proc/{pid}/cwd") == "/"
        assert {os.readlink(f"/proc/{pid}/fd/{n}") for n in range(3)} == {"/dev/null"}
        assert os.getsid(pid) == pid
        fields = dict(line.split(":\t", 1) for line in open(f"/proc/{pid}/status").read().splitlines())
        assert fields["Umask"] == "0027"
    finally:
        os.kill(pid, signal.SIGTERM)
        wait_until(lambda: not os.path.exists(f"/proc/{pid}") or "Z" in open(f"/proc/{pid}/stat").read().split()[2], 5)
    assert not pid_file(sw).exists()


def test_without_the_right_to_packet_sockets(sw):
    done = sw.run("setpriv", "--bounding-set=-net_raw", "--inh-caps=-net_raw", f"{BIN}/esmcd", check=False, timeout=10)
    assert done.returncode == 255
    assert "open_ssm: Error opening socket" in done.stderr
    assert "Open ssm error\n" in done.stderr
    assert "SSM start fail" in done.stderr
    assert not pid_file(sw).exists() and not sw.path("/run/esmcd.vty").exists()


def test_second_start_does_not_take_the_terminal_away(sw):
    sw.start_esmcd()
    second = sw.spawn("esmcd-second", [f"{BIN}/esmcd"])
    sw.cli("configure terminal", "clock synce local-priority 7")
    wait_until(lambda: not second.alive() or pid_file(sw).read_text() == f"{second.pid}\n", 5, "second has started")
    assert sw.clock()["Device priority"] == "7"
    second.stop()
    second.expected_status = second.popen.returncode
    assert sw.clock()["Device priority"] == "7"


def test_board_without_synce(lab):
    """No clock commands on such a board, and no board file means the same."""
    for name, board in (("no", "synce_support 0\n"), ("none", None)):
        sw = lab.switch(name, board=board)
        sw.start_esmcd(wait=False)
        wait_until(lambda: sw.path("/run/esmcd.vty").exists(), 5)
        assert sw.cli("show clock synce", check=False).status == 1
        assert sw.cli("configure terminal", "clock synce global-enable", check=False).status == 1
        assert sw.cli("show running-config").status == 0


def test_daemon_starts_before_nsm_and_finds_it_later(lab):
    sw, other = lab.switch("sw"), lab.node("other", board=None)
    lab.link(sw, "p1", other, "t1")
    sw.start_esmcd()
    assert sw.port("p1") == {}
    sw.start_nsmd()
    sw.wait_port("p1", 3, up="enable")
    sw.nsmd.kill()
    sw.start_nsmd()
    sw.nsmd.wait_log("connected")  # the port itself shows no restart of nsmd
    sw.wait_port("p1", 3, up="enable")


def test_nsmd_options_and_signals(lab):
    sw = lab.switch("sw")
    helped = sw.run(f"{BIN}/nsmd", "--help", check=False, timeout=10)
    assert helped.returncode == 0 and "--port" in helped.stdout and "--dpll" in helped.stdout
    wrong = sw.run(f"{BIN}/nsmd", "--nonsense", check=False, timeout=10)
    assert wrong.returncode not in (0, -6, -11) and wrong.stderr
    sw.start_nsmd()
    assert stat.S_IMODE(sw.path("/run/nsmd.sock").stat().st_mode) == 0o660
    assert sw.nsmd.stop() == 0
    assert not sw.path("/run/nsmd.sock").exists()
