"""What the programs need: libraries, memory, processor time."""

import subprocess
import time

import pytest
from lab import wait_until
from wire import DNU, Port

OWN_MEMORY_GOAL = 640  # KiB, with 255 ports; how much of libc is mapped is the kernel's choice (bench/run prints it)


def resident(pid, key="VmRSS"):
    with open(f"/proc/{pid}/status") as status:
        return int(status.read().split(key + ":")[1].split()[0])


def processor_ticks(pid):
    with open(f"/proc/{pid}/stat") as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return int(fields[11]) + int(fields[12])


@pytest.mark.parametrize("program", ["esmcd", "nsmd", "esmcsh"])
def test_programs_need_libc_alone(lab, release_only, program):
    text = subprocess.run(["ldd", lab.build / "bin" / program], capture_output=True, text=True).stdout
    libraries = [line.split()[0] for line in text.splitlines() if line.strip()]
    others = [name for name in libraries if not name.startswith(("linux-vdso", "libc.so.", "/lib64/ld-linux", "/lib/ld-linux"))]
    assert others == [] and libraries


def test_two_hundred_and_fifty_five_ports(lab, release_only):
    """All ports up, enabled and sending: memory within its goal, every port sends, and little work in a second."""
    sw = lab.switch("sw")
    other = lab.node("other", board=None)
    sw.ip_batch([f"link add d{n} index {n + 1} type veth peer name e{n} netns {other.pid}" for n in range(1, 256)] +
                [f"link set d{n} up" for n in range(1, 256)])
    other.ip_batch([f"link set e{n} up" for n in range(1, 256)])
    sw.start_nsmd("--port", "d*", "--dpll", "sim")
    sw.start_esmcd()
    sw.wait_port("d1", 10, up="enable")
    wait_until(lambda: sw.show("running-config").count("interface d") == 255, 10, "255 ports are bound")
    lines = ["configure terminal", "clock synce global-enable", "clock synce ssm enable"]
    for n in range(1, 256):
        lines += [f"interface d{n}", f"clock synce priority {n}", "clock synce enable", "exit"]
    done = sw.run("/run/esmc-bin/esmcsh", stdin=None, input="\n".join(lines) + "\n", check=False)
    assert done.returncode == 0, done.stdout[-300:]
    wait_until(lambda: sw.port("d255").get("Send quality") == "DNU", 5, "the last port sends")
    last = Port(other, "e255")
    assert last.expect(2, event=False).quality == DNU
    ticks, began = processor_ticks(sw.esmcd.pid), time.monotonic()
    wait_until(lambda: time.monotonic() - began >= 3, 4, "three seconds of ordinary work", interval=0.1)
    share = (processor_ticks(sw.esmcd.pid) - ticks) / 100 / (time.monotonic() - began)
    own = resident(sw.esmcd.pid, "RssAnon")
    print(f"255 ports: {own} KiB own of {resident(sw.esmcd.pid)} KiB resident, {share * 100:.1f} % of a processor; nsmd {resident(sw.nsmd.pid)} KiB")
    assert own <= OWN_MEMORY_GOAL, f"{own} KiB"
    assert share < 0.1, f"{share * 100:.1f} % of a processor"


def test_memory_does_not_grow_with_use(lab, release_only):
    sw, other = lab.switch("sw"), lab.node("other", board=None)
    lab.link(sw, "p1", other, "t1")
    sw.start()
    sw.wait_port("p1", up="enable")

    def work():
        for _ in range(15):
            sw.cli("configure terminal", "clock synce global-enable", "clock synce ssm enable", "interface p1",
                   "clock synce enable", "clock synce quality-eth rx prc", "no clock synce quality-eth rx", "exit",
                   "no clock synce ssm enable", "no clock synce global-enable", "end", "show running-config",
                   "show clock synce", "show clock synce p1", "show memory")
    work()
    before = resident(sw.esmcd.pid)
    for _ in range(3):
        work()
    assert resident(sw.esmcd.pid) - before <= 64


def test_start_is_quick(lab, release_only):
    sw = lab.switch("sw")
    sw.start_esmcd()
    sw.esmcd.stop()
    took = []
    for _ in range(5):
        began = time.monotonic()
        sw.start_esmcd()
        took.append(time.monotonic() - began)
        sw.esmcd.stop()
    assert min(took) < 0.2, took
