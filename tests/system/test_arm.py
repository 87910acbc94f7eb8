"""The programs built for 32-bit ARM, run by the user-mode emulator in the same namespaces as the native ones.

tools/check_arm builds them (build/armhf, or ESMC_ARM_BUILD). What the emulator has no way to: group memberships of
the packet socket (veth links deliver without), the filter of system calls, generic netlink (the clock is simulated).
"""

import os
import shutil

import lab as lab_module
import pytest
import ring
from conftest import guarded
from test_ring import settle
from test_rights import CAP_NET_ADMIN, CAP_NET_RAW, status_of

ARM_BUILD = lab_module.ROOT / os.environ.get("ESMC_ARM_BUILD", "build/armhf")
TARGET_ROOT = "/usr/arm-linux-gnueabihf"
EMULATOR = shutil.which("qemu-arm-static") or shutil.which("qemu-arm")
PROGRAMS = ("esmcd", "nsmd", "esmcsh")

if not all((ARM_BUILD / "bin" / name).is_file() for name in PROGRAMS):
    pytest.skip(f"{ARM_BUILD}/bin has no programs: tools/check_arm builds them", allow_module_level=True)
if not EMULATOR:
    pytest.skip("qemu-arm is not installed", allow_module_level=True)


@pytest.fixture
def lab(request, tmp_path):
    """A lab whose programs are scripts that hand the ARM programs to the emulator, which takes no others."""
    wrapped = tmp_path / "wrapped"
    (wrapped / "bin").mkdir(parents=True)
    for name in PROGRAMS:
        script = wrapped / "bin" / name
        shutil.copy(ARM_BUILD / "bin" / name, wrapped / "bin" / f"{name}.arm")  # the build itself may lie where no node sees it
        script.write_text(f'#!/bin/sh\nexec {EMULATOR} -L {TARGET_ROOT} "${{0%/*}}/{name}.arm" "$@"\n')
        script.chmod(0o755)
    with guarded(lab_module.Lab(tmp_path / "logs", build=wrapped), request) as made:
        yield made


def test_three_arm_switches_agree_on_a_clock(lab):
    switches = ring.make(lab)
    settle(switches, ring.WHOLE, 20)
    switches["A"].link_set("p1", False)
    settle(switches, ring.CUT_A_B, 10)
    switches["A"].link_set("p1", True)
    settle(switches, ring.WHOLE, 30)
    for switch in switches.values():
        assert switch.esmcd.stop() == 0
        assert switch.nsmd.stop() == 0
        assert not switch.path("/run/esmcd.pid").exists()


def test_configured_shown_saved_and_read_again(switch):
    switch.configure("hostname arm", "clock synce global-enable", "interface p1", "clock synce enable",
                     "clock synce priority 7")
    switch.wait_port("p1", synce="enable", priority="7")
    refused = switch.cli("configure terminal", "no-such-command", check=False)
    assert refused.status == 1 and refused.out == "% Unknown command\n"
    switch.cli("write")
    running = switch.show("running-config")
    assert switch.show("startup-config") == running and "hostname arm" in running
    assert switch.esmcd.stop() == 0
    switch.start_esmcd()
    switch.wait_port("p1", synce="enable", priority="7")
    assert switch.show("running-config") == running


def test_a_password_is_hashed_or_refused_in_words(switch):
    """With the target's libcrypt the hash is kept; a build without it says so, and keeps nothing."""
    reply = switch.cli("configure terminal", "password correct-horse", check=False, timeout=60)
    stored = switch.show("running-config")
    if reply.status == 0:
        assert "password encrypted $y$" in stored
    else:
        assert reply.out == "% This build has no password check\n"
        assert "password" not in stored


def test_capabilities_are_given_up(switch):
    """The emulator passes these calls on, so the process that runs the program loses them."""
    for process, capability in ((switch.esmcd, CAP_NET_RAW), (switch.nsmd, CAP_NET_ADMIN)):
        process.wait_log("rights: capabilities")
        assert "system calls not filtered: there is no filter here" in process.text()
        kept = status_of(process.pid)
        assert int(kept["CapEff"], 16) == 1 << capability
        assert kept["NoNewPrivs"] == "1"
