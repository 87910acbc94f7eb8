"""The machine fails the daemon: the disk is full, no descriptor is left."""

import os
import resource
import socket
import time

from lab import wait_until
from ring import CONFIG
from watch import cpu_seconds
from wire import PRC, Neighbour


def test_full_disk_from_the_start(configured):
    """/run and /etc are full: no pid file, no indexes kept, nothing saved; all else works, and it is said."""
    configured.run("sh", "-c", "mount -o remount,size=2m /run; cat /dev/zero > /run/filler 2>/dev/null; true")
    configured.start().wait_port("p1", up="enable", sending="enable")
    configured.nsmd.wait_log("can't write /run/nsmd.indexes: No space left on device; a restart may number the")
    assert configured.path("/run/esmcd.pid").read_text() == ""
    Neighbour(configured.t1, PRC)
    configured.wait_clock(source="p1", quality="PRC")
    configured.configure("clock synce local-priority 77")
    refused = configured.cli("write", check=False)
    assert refused.status != 0 and "% Can't save /etc/esmcd.conf: No space left on device" in refused.out
    assert configured.path("/etc/esmcd.conf").read_text() == CONFIG["B"]
    assert [entry.name for entry in configured.path("/etc").glob("*esmcd*")] == ["esmcd.conf"]
    # What runs was not touched, and the next try, with room, saves it.
    configured.path("/run/filler").unlink()
    configured.cli("write")
    assert "clock synce local-priority 77\n" in configured.path("/etc/esmcd.conf").read_text()
    configured.lab.link(configured, "p3", configured.lab.tester, "t3")
    configured.wait_port("p3", up="enable")
    assert configured.path("/run/nsmd.indexes").read_text().count(" p") == 3


def test_no_descriptor_left(enabled):
    """Terminals are refused or wait, frames go on, the loop does not spin, and afterwards all is well."""
    pid, neighbour = enabled.esmcd.pid, Neighbour(enabled.t1, PRC)
    enabled.wait_clock(source="p1", quality="PRC")
    before = resource.prlimit(pid, resource.RLIMIT_NOFILE)
    highest = max(int(number) for number in os.listdir(f"/proc/{pid}/fd"))
    resource.prlimit(pid, resource.RLIMIT_NOFILE, (highest + 1, before[1]))
    clients = [socket.socket(socket.AF_UNIX) for _ in range(8)]
    for client in clients:
        client.connect(str(enabled.path("/run/esmcd.vty")))
    try:
        wait_until(lambda: len(os.listdir(f"/proc/{pid}/fd")) == highest + 1, what="all descriptors are taken")
        enabled.nsmd.kill()  # the link to it has to be opened again meanwhile
        used, began = cpu_seconds(pid), time.monotonic()
        enabled.t2.drain()
        seen = [frame for frame in enabled.t2.frames(4) if neighbour.keep()]
        assert len([frame for frame in seen if not frame.event]) >= 3
        assert all(frame.quality == PRC for frame in seen)
        assert cpu_seconds(pid) - used < 0.5 * (time.monotonic() - began), "the loop spins"
        assert enabled.esmcd.alive()
    finally:
        for client in clients:
            client.close()
        resource.prlimit(pid, resource.RLIMIT_NOFILE, before)
    enabled.start_nsmd()
    enabled.wait_shell()
    wait_until(lambda: neighbour.keep() and "synchronised" in enabled.show("nsm"), what="the link to NSM is back")
    enabled.wait_clock(source="p1", quality="PRC")
