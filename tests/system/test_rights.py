"""What esmcd and nsmd may still do once they run: capabilities, no_new_privs, the filter of system calls.

That the rest works with it is what all the other tests here show: they run the same programs.
"""

import os
import re
import signal
import socket

import pytest
from lab import BIN, PATIENCE, ROOT, wait_until
from watch import process_status
from wire import DNU, PRC, esmc

CAPABILITY = {"esmcd": 13, "nsmd": 12}  # CAP_NET_RAW, CAP_NET_ADMIN
WORD = {"esmcd": "net_raw", "nsmd": "net_admin"}
NSMD_OPTIONS = ["--port", "p*", "--dpll", "sim"]
ROOT_USER, NOBODY = ["0"] * 4, ["65534"] * 4
# What it takes to become another user; all but the first is gone then.
BECOMES = {program: f"+{word},+net_admin,+setuid,+setgid,+setpcap,+chown,+dac_override" for program, word in WORD.items()}
PROGRAMS = pytest.mark.parametrize("program", CAPABILITY)


def limits(capabilities, *more):
    return ["setpriv", "--bounding-set", f"-all,{capabilities}", *more, "--no-new-privs"]


def as_in_unit(program):
    """With the user and the capabilities of the program's service unit; nobody stands for its user."""
    unit = (ROOT / "packaging" / f"{program}.service").read_text()
    names = re.search(r"^AmbientCapabilities=(.*)$", unit, re.MULTILINE).group(1)
    assert f"\nCapabilityBoundingSet={names}\n" in unit and "\nUser=esmcd\n" in unit
    granted = names.lower().replace("cap_", "+").replace(" ", ",")
    return limits(granted, "--reuid", "nobody", "--regid", "nogroup", "--clear-groups", "--inh-caps", f"-all,{granted}",
                  "--ambient-caps", f"-all,{granted}")


class Manager:
    """Plays the service manager: what a program says of itself."""

    def __init__(self, sw, program):
        self.place, self.socket = f"/run/{program}.notify", socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind(str(sw.path(self.place)))
        sw.path(self.place).chmod(0o666)
        self.environment = ["env", f"NOTIFY_SOCKET={self.place}", "WATCHDOG_USEC=400000"]

    def next(self, deadline=PATIENCE):
        self.socket.settimeout(deadline)
        try:
            return self.socket.recv(100).decode()
        except TimeoutError:
            return None

    def rest(self):
        return list(iter(lambda: self.next(0.01), None))


def reduced(sw, program):
    """The kernel's account of the program itself: what the lab starts is `setpriv` and `nsenter` until they exec."""
    spawned = getattr(sw, program)
    wait_until(lambda: os.readlink(f"/proc/{spawned.pid}/exe").endswith("/" + program), what=f"{program} runs")
    spawned.wait_log("rights: capabilities")
    return process_status(spawned.pid)


def assert_capability_alone(kept, program):
    assert [int(kept[field], 16) for field in ("CapEff", "CapPrm", "CapBnd")] == [1 << CAPABILITY[program]] * 3
    assert [int(kept[field], 16) for field in ("CapInh", "CapAmb")] == [0, 0]
    assert kept["NoNewPrivs"] == "1"


def test_one_capability_and_the_calls_of_the_table_are_left_and_suffice(switch):
    """For saving, a password's child process, a log file; a port that comes later, a restarted nsmd; the end that
    removes the pid file."""
    for program in CAPABILITY:
        kept, text = reduced(switch, program), getattr(switch, program).text()
        assert_capability_alone(kept, program)
        assert f"rights: capabilities {WORD[program]};" in text and kept["Uid"].split() == ROOT_USER
        if not switch.lab.sanitized:  # whose run time needs calls that the filter refuses; the build leaves it out
            assert kept["Seccomp"] == "2" and "system calls filtered" in text
    switch.configure("log file /var/log/esmcd.log", "password secret")
    saved = switch.path("/etc/esmcd.conf")
    for name in ("first", "after-the-save"):
        switch.configure("hostname " + name)
        switch.cli("write")
        assert "hostname " + name in saved.read_text() and saved.stat().st_mode & 0o777 == 0o640
    assert "password encrypted $" in switch.show("startup-config")
    assert switch.path("/var/log/esmcd.log").exists()
    switch.lab.link(switch, "p3", switch.lab.tester, "t3")
    switch.wait_port("p3", up="enable")
    switch.nsmd.kill()
    switch.lab.link(switch, "p4", switch.lab.tester, "t4")
    switch.start_nsmd()
    switch.wait_port("p4", up="enable")
    assert switch.esmcd.stop() == 0
    assert not switch.path("/run/esmcd.pid").exists() and not switch.path("/run/esmcd.vty").exists()


def test_started_as_by_the_units_they_serve_save_and_keep_the_manager_told(linked):
    """With the files that systemd-tmpfiles lays out, twice, the second time over what the first has left."""
    sw, programs = linked, (("nsmd", NSMD_OPTIONS), ("esmcd", []))
    managers = {program: Manager(sw, program) for program in CAPABILITY}
    rules = (ROOT / "packaging/esmcd.tmpfiles").read_text()
    sw.path("/run/rules.conf").write_text(re.sub(r"esmcd (esmcd|adm)$", "nobody nogroup", rules, flags=re.MULTILINE))
    sw.path("/etc/esmcd.conf").write_text((ROOT / "packaging/esmcd.conf").read_text())
    for turn in range(2):
        sw.run("systemd-tmpfiles", "--create", "/run/rules.conf")
        for program, options in programs:
            words = [*as_in_unit(program), *managers[program].environment, f"{BIN}/{program}", *options]
            setattr(sw, program, sw.spawn(program, words))
            assert managers[program].next() == "READY=1"
            kept = reduced(sw, program)
            assert kept["Uid"].split() == NOBODY and kept["NoNewPrivs"] == "1"
            assert int(kept["CapPrm"], 16) == 1 << CAPABILITY[program] and int(kept["CapAmb"], 16) == 0
        sw.wait_port("p1", up="enable", priority="9" if turn else "255")
        sw.configure("interface p1", "clock synce enable", "clock synce priority 9")
        sw.cli("write")
        assert "clock synce priority 9" in sw.path("/etc/esmcd.conf").read_text()
        for program, _ in reversed(programs):
            process, manager = getattr(sw, program), managers[program]
            manager.rest()
            assert manager.next() == "WATCHDOG=1"
            process.send(signal.SIGSTOP)
            wait_until(lambda: process_status(process.pid)["State"].startswith("T"), what="it stands still")
            manager.rest()
            assert manager.next(0.4) is None, "a program that hangs says that it runs"
            process.send(signal.SIGCONT)
            assert manager.next() == "WATCHDOG=1"
            assert process.stop() == 0 and manager.rest()[-1] == "STOPPING=1"
            assert [line for line in process.complaints() if "NSM: " not in line] == []
        assert [p.name for p in sw.path("/run/esmcd").iterdir()] == [] and sw.path("/run/esmcd.pid").read_text() == ""


def as_user(path, user):
    """The command line that starts the program at `path` as `user`."""
    return [path, "--user", user] if path.endswith("nsmd") else ["env", f"ESMCD_USER={user}", path]


def start_as(sw, program, user, *options):
    """With no more rights than are said to be enough."""
    setattr(sw, program, sw.spawn(program, [*limits(BECOMES[program], "--inh-caps", "-all"), *as_user(f"{BIN}/{program}", user), *options]))
    return reduced(sw, program)


@pytest.mark.parametrize("place, nsmd_user", [("/etc/esmcd.conf", "nobody"), ("/run/own/esmcd.conf", "root:nogroup")])
def test_another_user_serves_saves_and_is_started_again(linked, place, nsmd_user):
    """In /etc, where he may make no file, with links to where his sockets are; and in a directory of his own."""
    sw = linked
    if nsmd_user == "nobody":
        sw.run("install", "-d", "-o", "nobody", "-g", "nogroup", "/run/esmcd")
        for name, target in (("nsmd.sock", "nsmd.sock"), ("esmcd.vty", "vty")):
            sw.path(f"/run/{name}").symlink_to(f"/run/esmcd/{target}")
    sw.path("/etc/esmcd.conf").write_text("clock synce global-enable\nclock synce ssm enable\n")
    sw.run("install", "-d", "-o", "nobody", "/run/own", "/var/log/own")
    sw.run("sh", "-c", f"[ {place} = /etc/esmcd.conf ] || install -o nobody -m 640 /etc/esmcd.conf {place}")
    for turn in range(2):
        for program, user, options in (("nsmd", nsmd_user, NSMD_OPTIONS), ("esmcd", "nobody", ["-f", place])):
            kept = start_as(sw, program, user, *options)
            assert kept["Uid"].split() == (NOBODY if user == "nobody" else ROOT_USER)
            assert kept["Gid"].split() == NOBODY and kept["Groups"].strip() == ""
            assert_capability_alone(kept, program)
            assert sw.run(*as_user(f"{BIN}/{program}", user), check=False, timeout=10).returncode == 1, "a second one"
        sw.wait_shell()
        sw.wait_port("p1", up="enable", priority="9" if turn else "255")
        sw.configure("interface p1", "clock synce enable", "clock synce priority 9", "log file /var/log/own/log")
        sw.t1.send(esmc(PRC))
        sw.wait_clock(source="p1", quality="PRC", dpll="Lock")
        sw.t1.expect(quality=DNU)
        sw.cli("write")
        sw.wait_port("p1", priority="9")
        assert "clock synce priority 9" in sw.path(place).read_text()
        assert sw.path(place).stat().st_mode & 0o777 == 0o640
        assert sw.run("setpriv", "--reuid", "nobody", "--regid", "nogroup", "--clear-groups", f"{BIN}/esmcsh", "-c",
                      "show clock synce").returncode == 0
# A port that comes later is numbered, and a restarted nsmd knows its number.
        sw.lab.link(sw, f"p{7 + turn}", sw.lab.tester, f"t{7 + turn}")
        sw.wait_port(f"p{7 + turn}", up="enable")
        assert f" p{7 + turn}\n" in sw.path("/run/nsmd.indexes").read_text()
        for process in (sw.esmcd, sw.nsmd) if turn else (sw.nsmd, sw.esmcd):
            assert process.stop() == 0
            # nsmd holds the clock over when esmcd has ended before it.
            assert [line.split(" warning ")[1] for line in process.complaints() if "NSM: " not in line] == [
                "the daemon was stopped: the clock goes to holdover"] * (turn and process is sw.nsmd)
        assert sw.path("/run/esmcd.pid").read_text() == "", "who reads it must not find a process that is gone"
    sw.start_nsmd()  # root again, who may not write in directories of others
    sw.start_esmcd("-f", place)
    sw.wait_port("p1", up="enable", priority="9")
    assert sw.cli("write", check=False).status == (place != "/etc/esmcd.conf")


def test_what_another_user_may_not_do_is_said_at_the_start(sw):
    sw.start_nsmd()
    sw.run("install", "-d", "-m", "775", "-g", "mail", "/run/shared")
    kept = start_as(sw, "esmcd", "nobody", "-f", "/run/shared/esmcd.conf")
    assert kept["Uid"].split() == NOBODY
    said = " ".join(sw.esmcd.complaints())
    assert "user nobody may not write in /run/shared" in said and "may not connect to /run/nsmd.sock" in said
    sw.wait_shell()
    assert "Permission denied" in sw.cli("write", check=False).out
    sw.cli("configure terminal", "log file /var/log/esmcd.log", check=False)
    sw.esmcd.wait_log("log file /var/log/esmcd.log can't be opened: Permission denied")


@PROGRAMS
def test_unknown_users_and_groups_are_refused(sw, program):
    for user, why in (("no-such", "no such user"), ("root:no-such", "no such group"), ("4294967295", "no such user"),
                      ("4242", "needs a group"), ("", "no such user")):
        refused = sw.run(*as_user(f"{BIN}/{program}", user), check=False)
        assert refused.returncode == 1 and why in refused.stderr, (user, refused)
# Who is not root can't become anybody, and must not go on as who he is.
    stopped = sw.run("setpriv", "--bounding-set", "-setuid,-setgid", *as_user(f"{BIN}/{program}", "nobody"), check=False)
    assert stopped.returncode == (1 if program == "nsmd" else 255), stopped
    assert "can't become user nobody" in stopped.stderr and not sw.path("/run/esmcd.pid").exists()
