"""nsmd as a program: options and exit statuses, one at a time on a host, the status report, daemon mode."""

import os
import pathlib
import signal
import socket
import subprocess
import time

import fake_nsm
import pytest
from lab import BIN, wait_until
from watch import status_of
from wire import PRC, Neighbour, Port

NSMD = f"{BIN}/nsmd"


def run_nsmd(node, *options, **more):
    return node.run(NSMD, *options, check=False, timeout=10, **more)


@pytest.fixture
def node(lab):
    return lab.switch("sw")


def test_help_and_version(node):
    told = run_nsmd(node, "--help")
    assert told.returncode == 0 and told.stderr == ""
    for option in ("--port", "--dpll ", "--dpll-device", "--bits1", "--bits2", "--sim-state", "--source-code", "--grace-s",
                   "--status", "--daemon", "--version"):
        assert option in told.stdout
    assert run_nsmd(node, "-h").stdout == told.stdout
    version = run_nsmd(node, "--version")
    assert version.returncode == 0 and version.stdout.startswith("nsmd version ") and version.stdout.count("\n") == 1
    assert run_nsmd(node, "-v").stdout == version.stdout
    assert not node.path("/run/nsmd.sock").exists()


@pytest.mark.parametrize("words, said", [
    (["--bogus"], "--bogus"),
    (["extra"], "unexpected argument 'extra'"),
    (["--dpll", "quartz"], "bad value 'quartz' for --dpll"),
    (["--dpll"], "requires an argument"),
    (["--grace-s", "-1"], "bad value '-1' for --grace-s"),
    (["--grace-s", "86401"], "bad value '86401' for --grace-s"),
    (["--sim-state", "relative"], "bad value 'relative' for --sim-state"),
    (["--source-code", "0=1"], "bad value '0=1' for --source-code"),
    (["--log-level", "loud"], "bad value 'loud' for --log-level"),
])
def test_options_that_make_no_sense(node, words, said):
    refused = run_nsmd(node, *words)
    assert refused.returncode == 1 and refused.stdout == ""
    assert said in refused.stderr
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
    first = node.start_nsmd("--dpll", "sim")
    first.wait_log("serves /run/nsmd.sock")
    inode = node.path("/run/nsmd.sock").stat().st_ino
    second = run_nsmd(node, "--dpll", "sim")
    assert second.returncode == 1
    assert "can't listen on /run/nsmd.sock: another server is there" in second.stderr
    assert node.path("/run/nsmd.sock").stat().st_ino == inode
    # A server that is only slow is one still.
    first.send(signal.SIGSTOP)
    try:
        assert run_nsmd(node, "--dpll", "sim").returncode == 1
    finally:
        first.send(signal.SIGCONT)
    assert "clock: simulated" in status_of(node)
    # What a killed one left behind stops nobody; what another one made in its place is not removed at the end.
    first.kill()
    third = node.start_nsmd("--dpll", "sim")
    third.wait_log("serves /run/nsmd.sock")
    node.path("/run/nsmd.sock").unlink()
    node.path("/run/nsmd.sock").write_text("another's")
    assert third.stop() == 0
    assert node.path("/run/nsmd.sock").read_text() == "another's"


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_ends_on_signals_with_its_socket_removed(node, number):
    nsmd = node.start_nsmd("--dpll", "none")
    nsmd.wait_log("serves /run/nsmd.sock")
    assert node.path("/run/nsmd.sock").stat().st_mode & 0o777 == 0o660
    nsmd.send(signal.SIGHUP)  # ignored
    assert "clock" in status_of(node)
    assert nsmd.stop(number) == 0
    assert not node.path("/run/nsmd.sock").exists()


def test_kernel_clock_without_the_kernels_interface(node):
    """One clear line and status 1, whatever else was asked for; `auto` says why it goes on without."""
    if pathlib.Path("/sys/module/dpll").exists():
        pytest.skip("this kernel may have the interface")
    for options in (["--dpll", "kernel"], ["--dpll", "kernel", "--dpll-device", "ice", "--bits1", "EXT1"]):
        ended = run_nsmd(node, *options)
        assert ended.returncode == 1 and ended.stdout == ""
        errors = [line for line in ended.stderr.splitlines() if " error " in line]
        assert len(errors) == 1 and errors[0].endswith("clock: this kernel has no clock interface"), ended.stderr
        assert not node.path("/run/nsmd.sock").exists()
    for options in (["--dpll", "auto"], []):
        nsmd = node.start_nsmd("--port", "p*", *options)
        nsmd.wait_log("clock: this kernel has no clock interface, going on without")
        nsmd.wait_log("serves /run/nsmd.sock")
        assert "clock state: free-running, source 0" in status_of(node)
        nsmd.stop()


def test_status_report(lab):
    """Clock, requests, clients, links and ports, before a daemon came and after it chose; also while many ask."""
    sw = lab.switch("sw")
    lab.tester = lab.node("tester", board=None)
    lab.link(sw, "p1", lab.tester, "t1")
    lab.link(sw, "p2", lab.tester, "t2", up=False)
    sw.start_nsmd("--port", "p*", "--dpll", "sim", "--source-code", "10=77")
    sw.nsmd.wait_log("serves /run/nsmd.sock")
    bare = status_of(sw)
    assert "clock state: free-running, source 0, code 0\n" in bare
    assert "clients: 0 connected" in bare
    assert "port 10 p1: kernel index 10, up, flaps 0\n" in bare
    assert "port 12 p2: kernel index 12, down, flaps 0\n" in bare

    sw.start_esmcd()
    sw.configure("clock synce global-enable", "clock synce ssm enable", "interface p1", "clock synce enable")
    neighbour = Neighbour(Port(lab.tester, "t1"), PRC)
    wait_until(lambda: neighbour.keep() and "clock state: locked, source 10, code 77\n" in status_of(sw), 5, "locked")
    full = status_of(sw)
    assert "requests: 2; enable 1, recovery select 0, holdover 0, source 10\n" in full
    assert "clock: simulated, lock time 300 ms, acquiring 0, locked 1 times, in holdover 0 times\n" in full
    assert "clients: 1 connected" in full

    asking = [subprocess.Popen(sw.enter([NSMD, "--status"]), stdout=subprocess.PIPE, text=True) for _ in range(8)]
    answers = [process.communicate(timeout=10)[0] for process in asking]
    assert all("port 12 p2: kernel index 12, down" in answer for answer in answers)
    assert [process.returncode for process in asking] == [0] * 8
    assert "clients: 1 connected" in status_of(sw), "who asks is no client"

    sw.configure("no clock synce global-enable")
    wait_until(lambda: "enable 0" in status_of(sw), 3, "switched off")


def test_status_reaches_beyond_one_message(lab):
    """Forty ports take more than a message has room for."""
    sw = lab.switch("sw")
    sw.ip_batch([f"link add p{i} type veth peer name q{i}" for i in range(40)])
    sw.start_nsmd("--port", "p*", "--dpll", "none")
    sw.nsmd.wait_log("serves /run/nsmd.sock")
    lines = status_of(sw).splitlines()
    assert sum(line.startswith("port ") for line in lines) == 40


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
    started = run_nsmd(node, "-d", "--dpll", "sim")
    assert started.returncode == 0, started.stderr
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
        assert pids_in(node, "nsmd") == [pid]
    finally:
        os.kill(pid, signal.SIGTERM)
        wait_until(lambda: not pids_in(node, "nsmd"), 5, "the daemon ends")
    assert not node.path("/run/nsmd.sock").exists()


def test_clients_that_misbehave_are_held_back(lab):
    """Silence, garbage, and more of them than there is room for: esmcd beside them is served all along."""
    sw = lab.switch("sw")
    sw.start_nsmd("--dpll", "sim")
    sw.nsmd.wait_log("serves /run/nsmd.sock")
    path = str(sw.path("/run/nsmd.sock"))

    def dial():
        made = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        made.connect(path)  # waits while the backlog is full
        made.settimeout(3)
        return made

    sw.start_esmcd()
    sw.configure("clock synce global-enable")
    sw.nsmd.wait_log("request: SyncE enabled on the switch")
    others = [dial() for _ in range(20)]
    sw.nsmd.wait_log("a client was turned away: too many clients")
    for made in others[:5]:
        for packet in (b"", b"x", bytes(8), b"\xff" * 4000, fake_nsm.struct.pack(">HHI", 209, 16, 1) + bytes(8)):
            try:
                made.send(packet)
            except OSError:
                break  # hung up on already
    for made in others:
        made.close()
    sw.configure("no clock synce global-enable")
    sw.nsmd.wait_log("request: SyncE disabled on the switch")
    wait_until(lambda: "clients: 1 connected" in status_of(sw), 3)
    assert sw.nsmd.text().count("message before HELLO") <= 1, "said once a minute"
