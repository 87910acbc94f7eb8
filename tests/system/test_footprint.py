"""What the programs need: memory, processor time."""

import time

from lab import wait_until
from watch import cpu_seconds, process_status
from wire import PRC, Port

OWN_MEMORY_GOAL = 704  # KiB, with 255 ports, their counters and the history; how much of libc is mapped is the kernel's choice (bench/run prints it)


def resident(pid, key="VmRSS"):
    return int(process_status(pid)[key].split()[0])


def test_two_hundred_and_fifty_five_ports(many, release_only):
    """All ports up, enabled and sending: memory within its goal, every port sends, and little work in a second."""
    many.start("d*")
    wait_until(lambda: many.show("running-config").count("interface d") == 255, what="255 ports are configured")
    many.wait_port("d255", up="enable", tx="PRC")
    assert Port(many.lab.tester, "e255").expect(event=False).quality == PRC
    used, began = cpu_seconds(many.esmcd.pid), time.monotonic()
    wait_until(lambda: time.monotonic() - began >= 3, 4, "three seconds of ordinary work", interval=0.1)
    share = (cpu_seconds(many.esmcd.pid) - used) / (time.monotonic() - began)
    own = resident(many.esmcd.pid, "RssAnon")
    print(f"255 ports: {own} KiB own of {resident(many.esmcd.pid)} KiB resident, {share * 100:.1f} % of a processor; "
          f"nsmd {resident(many.nsmd.pid)} KiB")
    assert own <= OWN_MEMORY_GOAL, f"{own} KiB"
    assert share < 0.1, f"{share * 100:.1f} % of a processor"
