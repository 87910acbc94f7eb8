"""nsmd as a program: the status report, a kernel without clock hardware."""

import contextlib
import os
import pathlib
import re
import signal

import pytest
from lab import BIN, wait_until
from watch import status_of
from wire import PRC, Neighbour

NSMD = f"{BIN}/nsmd"


def run_nsmd(node, *options):
    return node.run(NSMD, *options, check=False, timeout=10)


def test_kernel_clock_without_the_kernels_interface(sw):
    """One clear line and status 1; `auto` says why it goes on without."""
    if pathlib.Path("/sys/module/dpll").exists():
        pytest.skip("this kernel may have the interface")
    ended = run_nsmd(sw, "--dpll", "kernel", "--dpll-device", "ice", "--bits1", "EXT1")
    assert ended.returncode == 1 and ended.stderr.count("\n") == 1 and not sw.path("/run/nsmd.sock").exists()
    assert ended.stderr.endswith(" error clock: this kernel has no clock interface\n"), ended.stderr
    sw.start_nsmd("--port", "p*").wait_log("clock: this kernel has no clock interface, going on without")
    assert "clock state: free-running, source 0" in status_of(sw)


def test_status_report(linked):
    """Clock, requests, clients, links and ports, before a daemon came and after it chose."""
    told = run_nsmd(linked, "--status")
    assert told.returncode == 1 and told.stderr.startswith("nsmd: no status from /run/nsmd.sock: ")
    linked.link_set("p2", False)
    linked.start_nsmd("--port", "p*", "--dpll", "sim", "--source-code", "10=77")
    bare = ("clock state: free-running, source 0, code 0\n", "clients: 0 connected",
            "port 10 p1: kernel index 10, up, flaps 0\n", "port 12 p2: kernel index 12, down, flaps 0\n")
    wait_until(lambda: all(line in status_of(linked) for line in bare), what=bare)

    linked.start_esmcd()
    linked.configure("clock synce global-enable", "clock synce ssm enable", "interface p1", "clock synce enable")
    neighbour = Neighbour(linked.t1, PRC)
    locked = "clock state: locked, source 10, code 77\n"
    wait_until(lambda: neighbour.keep() and locked in status_of(linked), what="locked")
    full = status_of(linked)
    for line in ("requests: 2; enable 1, recovery select 0, holdover 0, source 10\n", "clients: 1 connected",
                 "clock: simulated, lock time 300 ms, acquiring 0, locked 1 times, in holdover 0 times\n"):
        assert line in full


def test_helpers_are_replaced_and_one_that_hangs_holds_up_nobody(linked):
    """The kernel runs a driver's code inside the call that asks for it; a helper that is stopped stands for one that
    is in a driver that takes its time."""
    def helpers():
        return {what: int(pid) for pid, what in re.findall(r"helper: process (\d+), .* for (.*)", status_of(linked))}

    sw = linked
    sw.start()
    sw.wait_port("p1", up="enable")
    wait_until(lambda: set(helpers()) == {"the kernel's list of links", "the driver of a copper port"})
    before = helpers()
    os.kill(before["the kernel's list of links"], signal.SIGKILL)
    wait_until(lambda: len(helpers()) == 2 and not set(before.items()) <= set(helpers().items()), what="another helper")
    sw.lab.tester.link_set("t2", False)
    sw.wait_port("p2", up="disable")

    copper = before["the driver of a copper port"]
    os.kill(copper, signal.SIGSTOP)
    try:
        sw.configure("interface p1", "clock synce gephy slave")
        sw.nsmd.wait_log("the driver of p1 (copper role) has not answered for 1 s")
        assert "(copper role), which has not answered for " in status_of(sw)
        for up, shown in ((True, "enable"), (False, "disable")):
            sw.lab.tester.link_set("t2", up)
            sw.wait_port("p2", up=shown)
        assert sw.nsmd.stop(deadline=5) == 0
        wait_until(lambda: not pathlib.Path(f"/proc/{copper}").exists(), what="the helper ends with nsmd")
    finally:
        with contextlib.suppress(ProcessLookupError):
            os.kill(copper, signal.SIGKILL)
