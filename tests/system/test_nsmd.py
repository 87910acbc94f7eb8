"""nsmd as a program: options and exit statuses, one at a time on a host, the status report, daemon mode."""

import os
import pathlib
import signal
import subprocess
import time

import pytest
from lab import BIN, wait_until
from watch import status_of
from wire import PRC, Neighbour, Port

NSMD = f"{BIN}/nsmd"


def run_nsmd(node, *options, **more):
    return node.run(NSMD, *options, check=False, timeout=10, **more)


def started(node, *options):
    nsmd = node.start_nsmd(*options)
    nsmd.wait_log("serves /run/nsmd.sock")
    return nsmd


@pytest.fixture
def node(lab):
    return lab.switch("sw")


def test_options_that_start_nothing(node):
    told = run_nsmd(node, "--help")
    assert told.returncode == 0 and told.stderr == ""
    for option in ("--port", "--dpll ", "--dpll-device", "--bits1", "--bits2", "--sim-state", "--source-code",
                   "--grace-s", "--status", "--daemon", "--version"):
        assert option in told.stdout
    version = run_nsmd(node, "--version")
    assert version.returncode == 0 and version.stdout.startswith("nsmd version ") and version.stdout.count("\n") == 1
    for words, said in ((["--bogus"], "--bogus"), (["extra"], "unexpected argument 'extra'"),
                        (["--dpll"], "requires an argument"), (["--dpll", "quartz"], "bad value 'quartz' for --dpll")):
        refused = run_nsmd(node, *words)
        assert refused.returncode == 1 and refused.stdout == "" and said in refused.stderr, words
    assert not node.path("/run/nsmd.sock").exists()


def test_status_without_a_server(node):
    for leave_stale in (False, True):
        if leave_stale:
            node.start_nsmd("--dpll", "none").kill()
            assert node.path("/run/nsmd.sock").exists()
        told = run_nsmd(node, "--status")
        assert told.returncode == 1 and told.stdout == ""
        assert told.stderr.startswith("nsmd: no status from /run/nsmd.sock: ") and told.stderr.count("\n") == 1


def test_second_instance_is_refused_and_the_first_goes_on(node):
    first = started(node, "--dpll", "sim")
    first.send(signal.SIGSTOP)  # a server that is only slow is one still
    try:
        second = run_nsmd(node, "--dpll", "sim")
        assert second.returncode == 1
        assert "can't listen on /run/nsmd.sock: another server is there" in second.stderr
    finally:
        first.send(signal.SIGCONT)
    assert "clock: simulated" in status_of(node)
    # What a killed one left behind stops nobody.
    first.kill()
    started(node, "--dpll", "sim")


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_ends_on_signals_with_its_socket_removed(node, number):
    nsmd = started(node, "--dpll", "none")
    assert node.path("/run/nsmd.sock").stat().st_mode & 0o777 == 0o660
    nsmd.send(signal.SIGHUP)  # ignored
    assert "clock" in status_of(node)
    assert nsmd.stop(number) == 0
    assert not node.path("/run/nsmd.sock").exists()


def test_kernel_clock_without_the_kernels_interface(node):
    """One clear line and status 1; `auto` says why it goes on without."""
    if pathlib.Path("/sys/module/dpll").exists():
        pytest.skip("this kernel may have the interface")
    ended = run_nsmd(node, "--dpll", "kernel", "--dpll-device", "ice", "--bits1", "EXT1")
    assert ended.returncode == 1 and ended.stdout == ""
    errors = [line for line in ended.stderr.splitlines() if " error " in line]
    assert len(errors) == 1 and errors[0].endswith("clock: this kernel has no clock interface"), ended.stderr
    assert not node.path("/run/nsmd.sock").exists()
    nsmd = started(node, "--port", "p*")
    assert "clock: this kernel has no clock interface, going on without" in nsmd.text()
    assert "clock state: free-running, source 0" in status_of(node)


def test_status_report(linked):
    """Clock, requests, clients, links and ports, before a daemon came and after it chose; also while many ask."""
    linked.link_set("p2", False)
    started(linked, "--port", "p*", "--dpll", "sim", "--source-code", "10=77")
    bare = status_of(linked)
    for line in ("clock state: free-running, source 0, code 0\n", "clients: 0 connected",
                 "port 10 p1: kernel index 10, up, flaps 0\n", "port 12 p2: kernel index 12, down, flaps 0\n"):
        assert line in bare

    linked.start_esmcd()
    linked.configure("clock synce global-enable", "clock synce ssm enable", "interface p1", "clock synce enable")
    neighbour = Neighbour(Port(linked.lab.tester, "t1"), PRC)
    locked = "clock state: locked, source 10, code 77\n"
    wait_until(lambda: neighbour.keep() and locked in status_of(linked), 5, "locked")
    full = status_of(linked)
    for line in ("requests: 2; enable 1, recovery select 0, holdover 0, source 10\n", "clients: 1 connected",
                 "clock: simulated, lock time 300 ms, acquiring 0, locked 1 times, in holdover 0 times\n"):
        assert line in full

    asking = [subprocess.Popen(linked.enter([NSMD, "--status"]), stdout=subprocess.PIPE, text=True) for _ in range(8)]
    answers = [process.communicate(timeout=10)[0] for process in asking]
    assert all("port 12 p2: kernel index 12, down" in answer for answer in answers)
    assert [process.returncode for process in asking] == [0] * 8
    assert "clients: 1 connected" in status_of(linked), "who asks is no client"


def pids_in(node, name):
    """Processes of that name in the node's network, by the kernel's account."""
    space, found = os.readlink(f"/proc/{node.pid}/ns/net"), []
    for entry in pathlib.Path("/proc").iterdir():
        try:
            if entry.name.isdigit() and os.readlink(entry / "ns/net") == space and \
                    (entry / "comm").read_text().strip() == name:
                found.append(int(entry.name))
        except OSError:
            continue  # it ended meanwhile
    return found


def test_daemon_mode(node):
    """The parent ends once everything is open; nothing of the caller's is held on to; failures show in its status."""
    began = time.monotonic()
    background = run_nsmd(node, "-d", "--dpll", "sim")
    assert background.returncode == 0, background.stderr
    assert time.monotonic() - began < 8, "the caller's pipes were kept open"
    assert "clock: simulated" in status_of(node)
    (pid,) = pids_in(node, "nsmd")
    try:
        assert os.getsid(pid) == pid
        kept = {os.readlink(f"/proc/{pid}/fd/{fd}") for fd in os.listdir(f"/proc/{pid}/fd")}
        assert not [name for name in kept if name.startswith("pipe:") or name.startswith("/work")], kept
        assert {os.readlink(f"/proc/{pid}/fd/{fd}") for fd in (0, 1, 2)} == {"/dev/null"}
        again = run_nsmd(node, "--daemon", "--dpll", "sim")
        assert again.returncode == 1 and "another server is there" in again.stderr
    finally:
        os.kill(pid, signal.SIGTERM)
        wait_until(lambda: not pids_in(node, "nsmd"), 5, "the daemon ends")
    assert not node.path("/run/nsmd.sock").exists()
