"""What esmcd and nsmd may still do once they run: capabilities, no_new_privs, the filter of system calls.

That the rest works with it is what all the other tests here show: they run the same programs.
"""

import os
import re

import pytest
from lab import BIN, ROOT, build_dir, is_sanitized, wait_until
from wire import DNU, PRC, Port, esmc

pytestmark = pytest.mark.timing

CAP_NET_ADMIN, CAP_NET_RAW = 12, 13


def status_of(pid):
    with open(f"/proc/{pid}/status") as status:
        return dict(line.rstrip("\n").split(":\t", 1) for line in status if ":\t" in line)


def main_process(sw, program):
    """The process id of the program itself: what the lab starts is `setpriv` and `nsenter` until they exec."""
    spawned = getattr(sw, program)
    wait_until(lambda: os.readlink(f"/proc/{spawned.pid}/exe").endswith("/" + program), 5.0, f"{program} runs")
    return spawned.pid


def reduced(sw, program):
    pid = main_process(sw, program)
    getattr(sw, program).wait_log("rights: capabilities")
    return status_of(pid)


@pytest.mark.parametrize("program, capability, word", [("esmcd", CAP_NET_RAW, "net_raw"),
                                                       ("nsmd", CAP_NET_ADMIN, "net_admin")])
def test_one_capability_is_left_and_nothing_can_be_gained(switch, program, capability, word):
    kept = reduced(switch, program)
    for field in ("CapEff", "CapPrm", "CapBnd"):
        assert int(kept[field], 16) == 1 << capability, field
    for field in ("CapInh", "CapAmb"):
        assert int(kept[field], 16) == 0, field
    assert kept["NoNewPrivs"] == "1"
    assert f"rights: capabilities {word};" in getattr(switch, program).text()
    assert kept["Uid"].split() == ["0"] * 4


@pytest.mark.parametrize("program", ["esmcd", "nsmd"])
def test_system_calls_are_filtered(switch, program):
    if is_sanitized(build_dir()):
        pytest.skip("the sanitizers' run time needs calls that the filter refuses; the build leaves it out")
    assert reduced(switch, program)["Seccomp"] == "2"
    assert "system calls filtered" in getattr(switch, program).text()


def test_rights_are_reduced_in_daemon_mode_too(lab):
    sw = lab.switch("sw")
    sw.start_nsmd()
    parent = sw.start_esmcd("-d", wait=False)
    assert parent.wait() == 0
    pid_file = sw.path("/run/esmcd.pid")
    wait_until(lambda: pid_file.exists() and pid_file.read_text().endswith("\n"), 5.0, "the pid file is written")
    pid = int(pid_file.read_text())
    try:
        wait_until(lambda: int(status_of(pid)["CapEff"], 16) == 1 << CAP_NET_RAW, 5.0, "the rights are reduced")
    finally:
        os.kill(pid, 15)
        wait_until(lambda: not os.path.exists(f"/proc/{pid}") or status_of(pid)["State"].startswith("Z"), 5.0,
                   "the daemon ends")
    assert not pid_file.exists()


def test_what_needs_the_file_system_still_works_with_reduced_rights(switch):
    """Saving, reading back, a password's child process, a log file, and the end that removes the pid file."""
    reduced(switch, "esmcd")
    switch.configure("log file /tmp/esmcd.log", "password secret")
    switch.cli("write")
    saved = switch.path("/etc/esmcd.conf")
    assert "password encrypted $" in saved.read_text() and saved.stat().st_mode & 0o777 == 0o640
    switch.cli("show startup-config")
    switch.configure("hostname after-the-save")
    switch.cli("write")
    assert "hostname after-the-save" in saved.read_text()
    assert switch.path("/tmp/esmcd.log").exists()
    assert switch.esmcd.stop() == 0
    assert not switch.path("/run/esmcd.pid").exists()
    assert not switch.path("/run/esmcd.vty").exists()


def test_the_link_to_nsmd_and_new_ports_survive_reduced_rights(lab, switch):
    """A port that comes later is bound and joined; a restarted nsmd is found again."""
    reduced(switch, "esmcd")
    lab.link(switch, "p3", lab.tester, "t3")
    switch.wait_port("p3", up="enable")
    switch.nsmd.kill()
    lab.link(switch, "p4", lab.tester, "t4")
    switch.start_nsmd()
    switch.wait_port("p4", deadline=10.0, up="enable")


@pytest.mark.parametrize("program", ["esmcd", "nsmd"])
def test_the_limits_of_the_service_units_are_enough(lab, program):
    """Started with the capabilities that the unit grants, nothing is missed: no warning, and the port works."""
    sw = lab.switch("sw")
    other = lab.node("other", board=None)
    lab.link(sw, "p1", other, "t1")
    unit = (ROOT / "packaging" / f"{program}.service").read_text()
    granted = re.search(r"^CapabilityBoundingSet=(.*)$", unit, re.MULTILINE).group(1).lower().replace("cap_", "+")
    limits = ["setpriv", "--bounding-set", "-all," + granted.replace(" ", ","), "--inh-caps", "-all", "--no-new-privs"]
    options = {"nsmd": ["--port", "p*", "--dpll", "sim"], "esmcd": []}
    for each in ("nsmd", "esmcd"):
        prefix = limits if each == program else []
        setattr(sw, each, sw.spawn(each, [*prefix, f"{BIN}/{each}", *options[each]]))
        if each == "nsmd":
            wait_until(sw.path("/run/nsmd.sock").exists, 5.0, "nsmd listens")
    sw.wait_shell()
    sw.wait_port("p1", deadline=10.0, up="enable")
    assert [line for line in getattr(sw, program).text().splitlines() if " warning " in line or " error " in line] == []


NOBODY = ["65534"] * 4
UNIT_LIMITS = {program: re.search(r"^#CapabilityBoundingSet=(.*)$", text, re.MULTILINE).group(1)
               for program, text in ((each, (ROOT / "packaging" / f"{each}.service").read_text())
                                     for each in ("esmcd", "nsmd"))}


def as_user(path, user):
    """The command line that starts the program at `path` as `user`."""
    return [path, "--user", user] if path.endswith("nsmd") else ["env", f"ESMCD_USER={user}", path]


def start_as(sw, program, user, *options):
    """With no more rights than the unit's comment says that it takes."""
    granted = UNIT_LIMITS[program].lower().replace("cap_", "+").replace(" ", ",")
    argv = ["setpriv", "--bounding-set", "-all," + granted,
            "--inh-caps", "-all", "--no-new-privs", *as_user(f"{BIN}/{program}", user)]
    setattr(sw, program, sw.spawn(program, [*argv, *options]))
    return reduced(sw, program)


def complaints(process):
    return [line for line in process.text().splitlines() if " warning " in line or " error " in line]


@pytest.mark.parametrize("place, nsmd_user", [("/etc/esmcd.conf", "nobody"), ("/run/own/esmcd.conf", "root:nogroup")])
def test_another_user_serves_saves_and_is_started_again(lab, place, nsmd_user):
    """In /etc, where he may make no file, and in a directory of his own."""
    sw = lab.switch("sw", config="clock synce global-enable\nclock synce ssm enable\n")
    lab.tester = lab.node("tester", board=None)
    for port in ("p1", "p2"):
        lab.link(sw, port, lab.tester, "t" + port[1:])
    sw.run("install", "-d", "-o", "nobody", "/run/own")
    sw.run("sh", "-c", f"[ {place} = /etc/esmcd.conf ] || install -o nobody -m 640 /etc/esmcd.conf {place}")
    t1 = Port(lab.tester, "t1")
    for turn in range(2):
        for program, user, capability, options in (("nsmd", nsmd_user, CAP_NET_ADMIN, "--port p* --dpll sim"),
                                                   ("esmcd", "nobody", CAP_NET_RAW, "-f " + place)):
            kept = start_as(sw, program, user, *options.split())
            assert kept["Uid"].split() == (NOBODY if user == "nobody" else ["0"] * 4)
            assert kept["Gid"].split() == NOBODY and kept["Groups"].strip() == ""
            assert [int(kept[field], 16) for field in ("CapEff", "CapPrm", "CapBnd")] == [1 << capability] * 3
        sw.wait_shell()
        sw.wait_port("p1", deadline=10.0, up="enable", priority="9" if turn else "255")
        sw.configure("interface p1", "clock synce enable", "clock synce priority 9", "log file /run/own/log")
        t1.send(esmc(PRC))
        sw.wait_clock(source="p1", quality="PRC")
        wait_until(lambda: any(frame.quality == DNU for frame in t1.frames(0.5)), 5, "p1's neighbour hears the answer")
        sw.cli("write")
        sw.wait_port("p1", priority="9")
        assert "clock synce priority 9" in sw.path(place).read_text() and sw.path(place).stat().st_mode & 0o777 == 0o640
        assert sw.run("setpriv", "--reuid", "nobody", "--regid", "nogroup", "--clear-groups", f"{BIN}/esmcsh", "-c",
                      "show clock synce").returncode == 0
        # A port that comes later is numbered, and a restarted nsmd knows its number.
        lab.link(sw, f"p{7 + turn}", lab.tester, f"t{7 + turn}")
        sw.wait_port(f"p{7 + turn}", up="enable")
        assert f" p{7 + turn}\n" in sw.path("/run/nsmd.indexes").read_text()
        for process in (sw.esmcd, sw.nsmd) if turn else (sw.nsmd, sw.esmcd):
            assert process.stop() == 0
            assert complaints(process) == [line for line in complaints(process) if "NSM: " in line]
        assert sw.path("/run/esmcd.pid").read_text() == "", "who reads it must not find a process that is gone"
    sw.start_nsmd()  # root again, who may not write in directories of others
    sw.start_esmcd("-f", place)
    sw.wait_port("p1", deadline=10.0, up="enable", priority="9")
    assert sw.cli("write", check=False).status == (place != "/etc/esmcd.conf")


def test_what_another_user_may_not_do_is_said_at_the_start(lab):
    sw = lab.switch("sw")
    sw.start_nsmd()
    sw.run("install", "-d", "-m", "775", "-g", "mail", "/run/shared")
    kept = start_as(sw, "esmcd", "nobody", "-f", "/run/shared/esmcd.conf")
    assert kept["Uid"].split() == NOBODY
    said = " ".join(complaints(sw.esmcd))
    assert "user nobody may not write in /run/shared" in said and "may not connect to /run/nsmd.sock" in said
    sw.wait_shell()
    assert "Permission denied" in sw.cli("write", check=False).out
    sw.cli("configure terminal", "log file /var/log/esmcd.log", check=False)
    assert "log file /var/log/esmcd.log can't be opened: Permission denied" in sw.esmcd.text()


@pytest.mark.parametrize("program", ["esmcd", "nsmd"])
def test_unknown_users_and_groups_are_refused(lab, program):
    sw = lab.switch("sw")
    for user, why in (("no-such", "no such user"), ("root:no-such", "no such group"), ("4294967295", "no such user"),
                      ("4242", "needs a group"), ("", "no such user")):
        refused = sw.run(*as_user(f"{BIN}/{program}", user), check=False)
        assert refused.returncode == 1 and why in refused.stderr, (user, refused)
    # Who is not root can't become anybody, and must not go on as who he is.
    copy = f"/tmp/{program}"
    sw.run("cp", f"{BIN}/{program}", copy)
    stopped = sw.run("setpriv", "--bounding-set", "-setuid,-setgid", *as_user(copy, "nobody"), check=False)
    assert stopped.returncode not in (0, 1) or program == "nsmd" and stopped.returncode == 1, stopped
    assert "can't become user nobody" in stopped.stderr and not sw.path("/run/esmcd.pid").exists()
