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
from test_rights import CAPABILITY
from watch import process_status

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
    for name in PROGRAMS:  # copied, because the build itself may lie where no node sees it
        script = wrapped / "bin" / name
        shutil.copy(ARM_BUILD / "bin" / name, wrapped / "bin" / f"{name}.arm")
        script.write_text(f'#!/bin/sh\nexec {EMULATOR} -L {TARGET_ROOT} "${{0%/*}}/{name}.arm" "$@"\n')
        script.chmod(0o755)
    with guarded(lab_module.Lab(tmp_path / "logs", build=wrapped), request) as made:
        yield made


def test_three_arm_switches_agree_on_a_clock(lab):
    switches = ring.make(lab)
    settle(switches, ring.WHOLE, 20)
    for up, expected in ((False, ring.CUT_A_B), (True, ring.WHOLE)):
        switches["A"].link_set("p1", up)
        settle(switches, expected, 30)
    for switch in switches.values():
        assert switch.esmcd.stop() == switch.nsmd.stop() == 0
        assert not switch.path("/run/esmcd.pid").exists()


def test_configured_saved_and_read_again_with_capabilities_given_up(switch):
    """The emulator passes these calls on, so the process that runs the program loses them."""
    for program, capability in CAPABILITY.items():
        process = getattr(switch, program)
        process.wait_log("rights: capabilities")
        assert "system calls not filtered: there is no filter here" in process.text()
        kept = process_status(process.pid)
        assert int(kept["CapEff"], 16) == 1 << capability and kept["NoNewPrivs"] == "1"
    # With the target's libcrypt a password is kept as a hash; a build without it says so, and keeps nothing.
    reply = switch.cli("configure terminal", "password correct-horse", check=False, timeout=60)
    assert ("password encrypted $y$" in switch.show("running-config")) == (reply.status == 0)
    switch.configure("hostname arm", "clock synce global-enable", "interface p1", "clock synce enable",
                     "clock synce priority 7")
    switch.wait_port("p1", synce="enable", priority="7")
    switch.cli("write")
    running = switch.show("running-config")
    assert switch.show("startup-config") == running and "hostname arm" in running
    assert switch.esmcd.stop() == 0
    switch.start_esmcd()
    switch.wait_port("p1", synce="enable", priority="7")
    assert switch.show("running-config") == running
