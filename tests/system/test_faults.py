"""The machine fails the daemon: it is stopped for a while, the disk is full, no descriptor is left."""

import os
import resource
import signal
import socket
import time

import pytest
from lab import wait_until
from wire import PRC, Neighbour, Port

CONFIGURED = """clock synce global-enable
clock synce ssm enable
!
interface p1
 clock synce priority 10
 clock synce enable
!
interface p2
 clock synce enable
!
"""


@pytest.fixture
def wired(lab):
    sw = lab.switch("sw", config=CONFIGURED)
    lab.tester = lab.node("tester", board=None)
    lab.link(sw, "p1", lab.tester, "t1")
    lab.link(sw, "p2", lab.tester, "t2")
    sw.t1, sw.t2 = Port(lab.tester, "t1"), Port(lab.tester, "t2")
    return sw


def running(sw):
    sw.start()
    sw.wait_port("p1", up="enable", sending="enable")
    sw.wait_port("p2", up="enable", sending="enable")
    return sw


def keep_talking(neighbour, seconds):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        neighbour.keep()
        time.sleep(0.1)  # not a wait for anything: this is how long the fault lasts


def test_ten_seconds_stopped(wired):
    """No burst of stale timers, and the source that kept talking is the source again."""
    running(wired)
    neighbour = Neighbour(wired.t1, PRC)
    wired.wait_clock(source="p1", quality="PRC")
    wired.esmcd.send(signal.SIGSTOP)
    try:
        keep_talking(neighbour, 10)
        wired.t2.drain()
    finally:
        wired.esmcd.send(signal.SIGCONT)
    continued = time.monotonic()
    seen = []
    for frame in wired.t2.frames(3.5):
        neighbour.keep()
        seen.append(frame)
    information = [frame.when - continued for frame in seen if not frame.event]
    events = [frame for frame in seen if frame.event]
    assert 3 <= len(information) <= 5, information
    assert len([when for when in information if when < 0.5]) <= 1, information
    assert len(events) <= 4, [(frame.when - continued, frame.quality) for frame in events]
    assert seen[-1].quality == PRC
    wired.wait_clock(source="p1", quality="PRC", state="Lock")


def test_full_disk_at_write_loses_nothing(wired):
    wired.run("sh", "-c", "mkdir /run/small && mount -t tmpfs -o size=16k,mode=777 tmpfs /run/small")
    startup = wired.path("/run/small/esmcd.conf")
    startup.write_text(CONFIGURED)
    wired.start_nsmd()
    wired.start_esmcd("-f", "/run/small/esmcd.conf")
    wired.wait_port("p1", up="enable", priority="10")
    wired.run("sh", "-c", "cat /dev/zero > /run/small/filler 2>/dev/null; true")
    wired.configure("clock synce local-priority 77")
    refused = wired.cli("write", check=False)
    assert refused.status != 0 and "%" in refused.out, refused
    assert startup.read_text() == CONFIGURED
    assert sorted(entry.name for entry in wired.path("/run/small").iterdir()) == ["esmcd.conf", "filler"]
    # What runs was not touched, and the next try, with room, saves it.
    assert wired.clock()["Device priority"] == "77"
    wired.path("/run/small/filler").unlink()
    wired.cli("write")
    assert "clock synce local-priority 77\n" in startup.read_text()


def test_full_disk_from_the_start(wired):
    """/run and /etc are full: no pid file, no indexes kept, nothing saved; all else works, and it is said."""
    wired.run("sh", "-c", "mount -o remount,size=2m /run; cat /dev/zero > /run/filler 2>/dev/null; true")
    running(wired)
    wired.nsmd.wait_log("can't write /run/nsmd.indexes: No space left on device; a restart may number the ports anew")
    assert wired.path("/run/esmcd.pid").read_text() == ""
    neighbour = Neighbour(wired.t1, PRC)
    wired.wait_clock(source="p1", quality="PRC")
    refused = wired.cli("write", check=False)
    assert refused.status != 0 and "% Can't save /etc/esmcd.conf: No space left on device" in refused.out
    assert wired.path("/etc/esmcd.conf").read_text() == CONFIGURED
    wired.path("/run/filler").unlink()
    wired.cli("write")
    wired.lab.link(wired, "p3", wired.lab.tester, "t3")
    wait_until(lambda: neighbour.keep() and wired.port("p3"), 5, "a port that comes later is bound")
    assert {line.split()[1] for line in wired.path("/run/nsmd.indexes").read_text().splitlines()} == {"p1", "p2", "p3"}


def terminal(sw):
    """A connection to the local terminal; whether it is served is another matter."""
    made = socket.socket(socket.AF_UNIX)
    made.settimeout(2)
    made.connect(str(sw.path("/run/esmcd.vty")))
    return made


def test_no_descriptor_left(wired):
    """Terminals are refused or wait, frames go on, the loop does not spin, and afterwards all is well."""
    running(wired)
    neighbour = Neighbour(wired.t1, PRC)
    wired.wait_clock(source="p1")
    pid = wired.esmcd.pid
    before = resource.prlimit(pid, resource.RLIMIT_NOFILE)
    highest = max(int(number) for number in os.listdir(f"/proc/{pid}/fd"))
    resource.prlimit(pid, resource.RLIMIT_NOFILE, (highest + 1, before[1]))
    clients = [terminal(wired) for _ in range(8)]
    try:
        wait_until(lambda: len(os.listdir(f"/proc/{pid}/fd")) == highest + 1, 3, "all descriptors are taken")
        wired.nsmd.kill()  # the link to it has to be opened again meanwhile
        used = cpu_seconds(pid)
        began = time.monotonic()
        wired.t2.drain()
        seen = []
        for frame in wired.t2.frames(4):
            neighbour.keep()
            seen.append(frame)
        assert len([frame for frame in seen if not frame.event]) >= 3
        assert all(frame.quality == PRC for frame in seen)
        assert cpu_seconds(pid) - used < 0.5 * (time.monotonic() - began), "the loop spins"
        assert wired.esmcd.alive()
    finally:
        for client in clients:
            client.close()
        resource.prlimit(pid, resource.RLIMIT_NOFILE, before)
    wired.start_nsmd()
    wait_until(lambda: wired.cli(check=False).status == 0, 5, "the terminal answers again")
    wait_until(lambda: neighbour.keep() and "synchronised" in wired.show("nsm"), 5, "the link to NSM is back")
    wired.wait_clock(source="p1", quality="PRC")


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat", encoding="ascii") as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
