"""Follow, lose, hold over, return, on every kind of device that the interface knows; devices that go and come back;
what else there may be about a port."""

import json
import re

import pytest
from clock_lab import HOLDOVER, LOCKED, wait_until, wire
from lab import BIN

DEVICES = {
    "manual": {},
    "automatic": {"mode": 2},
    "mux": {"mode": 2, "mux": 1},
    "pps": {"pps": 1},
    "silent": {"silent": 1},
    "slow": {"mode": 2, "set_delay_ms": 400},
}


@pytest.mark.parametrize("device, first", [pytest.param(device, first, id=f"{device}-{'first' if first else 'own'}")
                                           for device in DEVICES for first in (True, False)
                                           if first or device in ("manual", "automatic", "mux")])
def test_follow_lose_hold_over_and_return(box, device, first):
    one = box(first=first, **DEVICES[device])
    one.follow(*([] if first else ["--user", "nobody"]))
    toward = {port: wire.Port(one.tester, port) for port in ("swp1", "swp3")}
    for port, quality in (("swp1", wire.DNU), ("swp3", wire.PRC)):
        toward[port].expect(3, quality=quality)
    one.cable("swp0", False)
    one.sees("swp2")
    one.cable("swp2", False)
    one.sees(None)
    one.cable("swp2", True)
    one.sees("swp2")
    one.cable("swp0", True)
    one.sees("swp0")
    toward["swp3"].expect(3, quality=wire.PRC)
    one.neighbours.say(swp0=None, swp2=None)
    one.sees(None)
    toward["swp1"].expect(3, quality=wire.EEC1)


def test_an_external_input(box):
    one = box().follow("--bits1", "BITS1")
    one.sw.configure("clock recovery-select bits bits1")
    one.clock.wait(follows="BITS1")
    one.sw.configure("no clock recovery-select")
    one.clock.wait(follows="swp0")


@pytest.mark.parametrize("device", ("manual", "mux"))
def test_the_driver_resets_its_clock(box, device):
    """Devices and pins go and come back with other numbers, the ports stay."""
    one = box(**DEVICES[device]).follow()
    for _ in range(2):
        one.clock.tell("present", 0)
        one.clock.tell("present", 1)
        one.sees("swp0")
    one.clock.tell("present", 0)
    one.sw.wait_clock(dpll="FreeRun")
    one.clock.tell("present", 1)
    one.sees("swp0")


def test_the_driver_is_unloaded_and_loaded(box):
    """Its ports go too, and their configuration with them."""
    one = box().follow()
    one.clock.unload()
    one.sw.wait_clock(source="N/A", dpll="FreeRun")
    wait_until(lambda: one.sw.port("swp0") == {}, what="no port")
    one.clock.load(mode=2)
    one.plug_in()
    one.speak(swp2=wire.SSU_A)
    one.sw.wait_port("swp2", up="enable")
    one.sw.configure("interface swp2", "clock synce enable")
    one.sees("swp2")


def test_loss_before_holdover_was_acquired_and_daemons_that_are_killed(box):
    one = box(acquire_ms=60000)
    one.start("--grace-s", "2", swp0=wire.PRC)
    one.clock.wait(status=LOCKED)
    one.sw.wait_clock(dpll="Lock")
    one.clock.set(no_signal=1)
    one.sw.wait_clock(dpll="FreeRun")
    one.clock.set(no_signal=0, acquire_ms=100)
    one.sees("swp0")
    one.sw.nsmd.kill()
    one.sw.start_nsmd("--dpll", "kernel", "--grace-s", "2")
    one.sees("swp0")
    one.sw.esmcd.kill()
    one.clock.wait(follows="nothing", status=HOLDOVER)
    one.sw.start_esmcd()
    one.sees("swp0")


def test_copper_roles_by_the_kernels_own_interface(box):
    one = box()

    def role():
        return one.sw.run("ethtool", "swp0", net_only=True).stdout

    one.sw.run("ethtool", "-s", "swp0", "master-slave", "preferred-slave", net_only=True)
    one.start()
    one.sw.configure("no clock synce ssm enable", "interface swp0", "clock synce gephy master")
    wait_until(lambda: "forced master" in role())
    one.sw.configure("interface swp0", "clock synce gephy slave")
    wait_until(lambda: "forced slave" in role())
    one.sw.configure("interface swp0", "no clock synce gephy")
    wait_until(lambda: "preferred slave" in role())


def test_the_probe_and_the_shows_have_the_pins(box):
    def probe():
        return one.sw.run(f"{BIN}/nsmd", "--probe", check=False)
    one = box()
    answer = probe()
    assert answer.returncode == 0 and answer.stdout.splitlines()[-1].endswith("can follow swp0, swp2"), answer
    one.clock.set(pin_error=5, bad_pins=1)
    answer = probe()
    assert answer.returncode == 0 and answer.stdout.endswith("can follow swp2\n"), answer
    assert re.search(r"\npin \d+ \(swp0\): can't be read: Input/output error\n", answer.stdout), answer
    one.clock.set(pin_error=0)
    one.follow("--dpll-mode", "automatic")  # which this kernel has no way to set
    assert "to automatic: Invalid argument; going on as it is" in one.sw.nsmd.text()
    shown = json.loads(one.sw.show("clock synce json"))
    assert [port["pin_label"] for port in shown["ports"]] == ["SWP0", "SWP2"]
    one.clock.unload()
    answer = probe()
    assert answer.returncode == 1 and "no: no clock device" in answer.stdout, answer


def test_what_the_driver_tells_is_shown(box):
    """Frequency offset, labels, the lock's error, what the device claims of itself."""
    def tells(error):
        shown = json.loads(one.sw.show("clock synce json"))
        found = [shown["lock_error"], shown["local_quality"], *(port["frequency_offset_ppt"] for port in shown["ports"])]
        return found == [error, "ssu-b", -3000000, -3000000]

    one = box(mode=2, quality=1 << 3, offset_ppm=-3).follow("--clock-quality")  # SSU-B
    assert one.status().count("frequency offset -3000.000 ppb") == 5 and "; panel front; package chip" in one.status()
    wait_until(lambda: tells(None), what="the kernel tells no error of a clock that is locked")
    one.clock.set(no_signal=15, lock_error=4)
    one.neighbours.say(swp0=None, swp2=None)
    one.sees(None)
    wait_until(lambda: tells("ffo-too-high"))
    assert re.search(r"none +ffo-too-high +lock error", one.sw.show("clock synce history"))


def test_two_hundred_and_fifty_ports(box):
    """Dumps of many datagrams, kernel indexes above 255."""
    one = box(ports=("swp0", "swp246", "swp248"), made_ports=250, mode=2)
    one.start(swp248=wire.PRC)
    one.sees("swp248")
    one.neighbours.say(swp246=wire.PRC)
    one.sees("swp246")


def test_ports_in_a_bond_and_a_bridge_with_vlans_on_top(box):
    one = box()
    one.sw.ip_batch(["link add bond1 type bond mode active-backup", "link set swp0 down", "link set swp0 master bond1",
                     "link set bond1 up", "link set swp0 up", "link add br1 type bridge vlan_filtering 1",
                     "link set swp2 master br1", "link set br1 up", "link add link bond1 name bond1.7 type vlan id 7",
                     "link add link swp2 name swp2.8 type vlan id 8", "link set bond1.7 up", "link set swp2.8 up"])
    one.sw.run("bridge", "vlan", "del", "dev", "swp2", "vid", "1", net_only=True)
    one.follow()
    one.cable("swp0", False)
    one.sees("swp2")
    assert "bond1" not in one.status() and "swp2.8" not in one.status()
    one.sw.ip("link", "del", "br1")
    one.sees("swp2")
    one.cable("swp0", True)
    one.sees("swp0")
