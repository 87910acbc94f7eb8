"""The programs built for 32-bit ARM, run by the user-mode emulator in the same namespaces as the native ones.

tools/check_arm builds them (build/armhf, or ESMC_ARM_BUILD). What the emulator has no way to: group memberships of
the packet socket (veth links deliver without), the filter of system calls, generic netlink (the clock is simulated).
"""

import os
import shutil
import struct

import lab as lab_module
import pytest
import ring
from test_ring import settle
from test_rights import CAP_NET_ADMIN, CAP_NET_RAW, status_of

ARM_BUILD = lab_module.ROOT / os.environ.get("ESMC_ARM_BUILD", "build/armhf")
TARGET_ROOT = "/usr/arm-linux-gnueabihf"
EMULATOR = shutil.which("qemu-arm-static") or shutil.which("qemu-arm")
PROGRAMS = ("esmcd", "nsmd", "esmcsh")
EM_ARM, CLASS_32 = 40, 1

if not all((ARM_BUILD / "bin" / name).is_file() for name in PROGRAMS):
    pytest.skip(f"{ARM_BUILD}/bin has no programs: tools/check_arm builds them", allow_module_level=True)
if not EMULATOR:
    pytest.skip("qemu-arm is not installed", allow_module_level=True)


@pytest.fixture
def arm_lab(request, tmp_path):
    """A lab whose programs are scripts that hand the ARM programs to the emulator."""
    wrapped = tmp_path / "wrapped"
    (wrapped / "bin").mkdir(parents=True)
    for name in PROGRAMS:
        script = wrapped / "bin" / name
        script.write_text(f'#!/bin/sh\nexec {EMULATOR} -L {TARGET_ROOT} {ARM_BUILD}/bin/{name} "$@"\n')
        script.chmod(0o755)
    made = lab_module.Lab(tmp_path / "logs", build=wrapped)
    complaints = []
    try:
        yield made
    finally:
        complaints = made.stop()
        called = getattr(request.node, "report_call", None)
        if complaints or (called is not None and called.failed):
            print(made.tails())
    assert not complaints, "\n".join(complaints)


@pytest.mark.parametrize("program", PROGRAMS)
def test_programs_are_arm_programs(program):
    with open(ARM_BUILD / "bin" / program, "rb") as file:
        head = file.read(20)
    assert head[:4] == b"\x7fELF" and head[4] == CLASS_32
    assert struct.unpack_from("<H", head, 18)[0] == EM_ARM


def test_three_arm_switches_agree_on_a_clock(arm_lab):
    switches = ring.make(arm_lab)
    settle(switches, ring.WHOLE, 20)
    switches["A"].link_set("p1", False)
    settle(switches, ring.CUT_A_B, 10)
    switches["A"].link_set("p1", True)
    settle(switches, ring.WHOLE, 30)
    for switch in switches.values():
        assert switch.esmcd.stop() == 0
        assert switch.nsmd.stop() == 0
        assert not switch.path("/run/esmcd.pid").exists()


def test_configured_shown_saved_and_read_again(arm_lab):
    sw = arm_lab.switch("sw")
    other = arm_lab.node("other", board=None)
    arm_lab.link(sw, "p1", other, "t1")
    sw.start()
    assert sw.cli("show version").out.startswith("esmcd version ")
    sw.configure("hostname arm", "clock synce global-enable", "interface p1", "clock synce enable", "clock synce priority 7")
    sw.wait_port("p1", synce="enable", priority="7")
    refused = sw.cli("configure terminal", "no-such-command", check=False)
    assert refused.status == 1 and refused.out == "% Unknown command\n"
    sw.cli("write")
    running = sw.cli("show running-config").out
    assert sw.cli("show startup-config").out == running and "hostname arm" in running
    assert sw.esmcd.stop() == 0
    sw.start_esmcd()
    sw.wait_port("p1", synce="enable", priority="7")
    assert sw.cli("show running-config").out == running


def test_a_password_is_hashed_or_refused_in_words(arm_lab):
    """With the target's libcrypt the hash is kept; a build without it says so, and keeps nothing."""
    sw = arm_lab.switch("sw")
    sw.start()
    reply = sw.cli("configure terminal", "password correct-horse", check=False, timeout=60)
    stored = sw.cli("show running-config").out
    if reply.status == 0:
        assert "password encrypted $y$" in stored
    else:
        assert reply.out == "% This build has no password check\n"
        assert "password" not in stored


def test_capabilities_are_given_up(arm_lab):
    """The emulator passes these calls on, so the process that runs the program loses them."""
    sw = arm_lab.switch("sw").start()
    for process, capability in ((sw.esmcd, CAP_NET_RAW), (sw.nsmd, CAP_NET_ADMIN)):
        process.wait_log("rights: capabilities")
        assert "system calls not filtered: there is no filter here" in process.text()
        kept = status_of(process.pid)
        assert int(kept["CapEff"], 16) == 1 << capability
        assert kept["NoNewPrivs"] == "1"
