"""The daemon as a process: options, exit statuses, pid file, signals, daemon mode, missing rights."""

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


def test_options_that_start_nothing(sw):
    def esmcd(*options):
        done = sw.run(f"{BIN}/esmcd", *options, check=False, timeout=10)
        return done.returncode, done.stdout, done.stderr

    assert esmcd("--help") == esmcd("-d", "-h", "-x") == (0, USAGE, "")
    status, out, err = esmcd("--version")
    assert (status, err) == (0, "") and re.fullmatch(r"esmcd version \S+\n", out)
    assert esmcd("-r") == (1, "", HINT)
    for words in (["-x"], ["--nonsense"], ["-f"], ["-P"]):
        status, out, err = esmcd(*words)
        assert (status, out) == (1, "") and err.endswith(HINT) and err != HINT, "what is wrong is said too"


def pid_file(sw):
    return sw.path("/run/esmcd.pid")


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_pid_file_lives_as_long_as_the_daemon(sw, number):
    daemon = sw.start_esmcd()
    assert pid_file(sw).read_text() == f"{daemon.pid}\n"
    assert stat.S_IMODE(pid_file(sw).stat().st_mode) == 0o644
    assert stat.S_IMODE(sw.path("/run/esmcd.vty").stat().st_mode) == 0o660
    began = time.monotonic()
    assert daemon.stop(number) == 0
    took = time.monotonic() - began
    assert took < (2.0 if sw.lab.sanitized else 0.1), f"took {took * 1000:.0f} ms"
    assert not pid_file(sw).exists()
    assert not sw.path("/run/esmcd.vty").exists()
    assert daemon.text().count("Terminating on signal") == 1


def test_signals_that_end_nothing(sw):
    daemon = sw.start_esmcd()
    for number in (signal.SIGPIPE, signal.SIGUSR2, signal.SIGTSTP, signal.SIGTTIN, signal.SIGTTOU, signal.SIGHUP,
                   signal.SIGUSR1):
        daemon.send(number)
    daemon.wait_log("SIGHUP received")
    daemon.wait_log("SIGUSR1 on received")
    sw.clock()
    assert daemon.alive() and pid_file(sw).exists()
    line = next(line for line in daemon.text().splitlines() if "SIGHUP received" in line)
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}(Z|[+-]\d\d:?\d\d) info : SIGHUP received", line), line


def test_signal_during_start_ends_cleanly(sw):
    """At whatever point of start-up the signal comes: after the handlers are set it ends with status 0."""
    for delay in (0.001, 0.003, 0.006, 0.01, 0.02, 0.04, 0.08):
        daemon = sw.start_esmcd(wait=False)
        time.sleep(delay)  # the point of the test is where in start-up the signal falls
        daemon.expected_status = daemon.stop(signal.SIGTERM)
        assert daemon.expected_status in (0, -signal.SIGTERM), delay
    assert not pid_file(sw).exists()


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
    finally:
        os.kill(pid, signal.SIGTERM)
        wait_until(lambda: not os.path.exists(f"/proc/{pid}") or "Z" in open(f"/proc/{pid}/stat").read().split()[2], 5)
    assert not pid_file(sw).exists()


def test_without_the_right_to_packet_sockets(sw):
    done = sw.run("setpriv", "--bounding-set=-net_raw", "--inh-caps=-net_raw", f"{BIN}/esmcd", check=False, timeout=10)
    assert done.returncode == 255
    for said in ("open_ssm: Error opening socket", "Open ssm error\n", "SSM start fail"):
        assert said in done.stderr
    assert not pid_file(sw).exists() and not sw.path("/run/esmcd.vty").exists()
