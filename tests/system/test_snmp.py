"""The SSM MIB through a real master agent, asked with the usual tools and the module loaded."""

import os
import pathlib
import re
import shutil
import signal
import subprocess
import time

import pytest
from lab import ROOT, wait_until
from wire import DNU, PRC, Neighbour, Port

BASE = ".1.3.6.1.4.1.32473.81"
SNMPD_CONF = """master agentx
agentXSocket /var/agentx/master{more}
rocommunity public
rwcommunity private
trap2sink 127.0.0.1:1162 public
"""
# The modules that ours imports, as some distributions, or the npm package net-snmp, ship them.
MIB_PLACES = [os.environ.get("ESMC_MIBS", ""), "/usr/share/snmp/mibs/ietf", "/var/lib/snmp/mibs/ietf", "/var/lib/mibs/ietf",
              str(ROOT / "build/mibs/node_modules/net-snmp/lib/mibs")]


@pytest.fixture(scope="module")
def mibs():
    for place in MIB_PLACES:
        if place and pathlib.Path(place).is_dir() and list(pathlib.Path(place).glob("SNMPv2-TC*")):
            return place
    pytest.fail("no base MIB modules; set ESMC_MIBS, or: npm install --prefix build/mibs net-snmp")


class Manager:
    """snmpd in a switch's node, and the tools that ask it."""

    def __init__(self, switch, mibs, more=""):
        self.switch, self.snmpd = switch, None
        self.mibs = ["-M", f"{ROOT / 'mibs'}:{mibs}", "-m", "ESMC-SSM-MIB"]
        switch.path("/run/snmpd.conf").write_text(SNMPD_CONF.format(more=more))

    def start(self):
        self.snmpd = self.switch.spawn("snmpd", ["env", "MIBS=", "SNMP_PERSISTENT_DIR=/run/snmp", "snmpd", "-f", "-LOw",
                                                 "-C", "-c", "/run/snmpd.conf", "udp:127.0.0.1:161"])
        return self

    def wait_registered(self, deadline=5.0):
        wait_until(lambda: "registered" in self.switch.show("snmp").splitlines()[0], deadline, "registered with snmpd")
        return self

    def tool(self, name, *words, check=True, seconds=2, raw=False):
        quick = ["-Ci"] if name == "snmptable" else ["-Oqs"]  # which is quick by itself, and would be turned back
        module = ["-m", ""] if raw else self.mibs
        argv = [name, "-v2c", "-c", "private", *module, *quick, "-t", str(seconds), "-r", "0", "127.0.0.1", *words]
        done = self.switch.run(*argv, net_only=True, check=False)
        if check and done.returncode != 0:
            raise AssertionError(f"{name} {words}: {done.stdout}{done.stderr}")
        return done

    def get(self, *names, **more):
        """The values of the named instances, as the module names them."""
        lines = self.tool("snmpget", *names, **more).stdout.splitlines()
        values = [line.partition(" ")[2].strip() for line in lines]
        return values[0] if len(names) == 1 else values

    def walk(self, name, tool="snmpwalk"):
        return dict(line.split(" ", 1) for line in self.tool(tool, name).stdout.splitlines())

    def set(self, *assignments, raw=False):
        """The status of a SET: noError, or what the agent said, with the object that it named. Raw: without the
        module, by which the tool would refuse some values itself."""
        done = self.tool("snmpset", *assignments, check=False, raw=raw)
        if done.returncode == 0:
            return "noError"
        reason = re.search(r"Reason: \(?(\w+)", done.stderr)
        failed = re.search(r"Failed object: (\S+)", done.stderr)
        assert reason, done.stderr
        return reason.group(1) + (f" {failed.group(1)}" if failed else "")


@pytest.fixture
def managed(switch, mibs):
    """A switch with two ports in use and snmpd beside it: (switch, manager). The ports' indexes are switch.p1 and .p2."""
    switch.configure("clock synce global-enable", "clock synce ssm enable")
    for port in ("p1", "p2"):
        switch.configure(f"interface {port}", "clock synce enable")
        switch.wait_port(port, up="enable")
    shown = switch.show("slow-protocols")
    switch.p1, switch.p2 = (int(re.search(rf"^{port} +(\d+)", shown, re.M)[1]) for port in ("p1", "p2"))
    return switch, Manager(switch, mibs).start().wait_registered()


QUALITY = {"PRS": "prs", "PRC": "prc", "STU": "stu", "SSU-A": "ssuA", "TNC": "tnc", "ST2": "st2", "SSU-B": "ssuB",
           "EEC2": "eec2", "EEC2/ST3": "eec2", "EEC1": "eec1", "EEC1/SEC": "eec1", "SMC": "smc", "ST3E": "st3e",
           "PROV": "prov", "DNU": "dnu", "DUS": "dus", "N/A": "na"}
STATE = {"enable": "enabled", "disable": "disabled", "enable (with gephy)": "enabled"}
RUNS = {"enable": "running", "disable": "stopped"}


def expected_clock(switch):
    """What the module must print, from the show commands."""
    clock = switch.clock()
    index = {"p1": switch.p1, "p2": switch.p2, "N/A": 0, "None": 0}
    running = {"Lock": "lock", "Holdover": "holdover", "FreeRun": "freeRun", "Mast-Clock": "master"}
    return {
        "esmcClockIdentity": clock["Device ClockID"], "esmcSynceEnabled": STATE[clock["Enable global synce"]],
        "esmcSsmEnabled": STATE[clock["Enable global ssm"]],
        "esmcDeviceType": {"Default": "default", "Master-only": "masterOnly", "Slave-only": "slaveOnly"}[clock["Device type"]],
        "esmcLocalQuality": QUALITY[clock["Device quality"]], "esmcCurrentQuality": QUALITY[clock["Current quality"]],
        "esmcLocalPriority": clock["Device priority"],
        "esmcSelectedPort": str(index.get(clock["Current selected interface"], 0)),
        "esmcExtensionEnabled": STATE[clock["Enable ssm extension"]],
        "esmcRunningState": running[clock["Clock running state"]],
        "esmcNetworkOption": "option" + clock["SSM option mode"],
        "esmcForceSwitch": str(index[clock["Switch force interface"]]),
    }


def expected_port(switch, name):
    port = switch.port(name)
    mode = {"ESMC RX": "receive", "ESMC TX": "transmit", "ESMC TX & RX": "all", "disable": "none"}
    return {
        "esmcPortSynceEnabled": STATE[port["Synce enable"]], "esmcPortMode": mode[port["ESMC RX/TX"]],
        "esmcPortPriority": port["Port priority"], "esmcPortLink": {"enable": "up", "disable": "down"}[port["Port up"]],
        "esmcPortReceivedQuality": QUALITY[port["Receive quality"]], "esmcPortSendTimer": RUNS[port["Send timer running"]],
        "esmcPortReceiveTimer": RUNS[port["Timeout timer running"]], "esmcPortSentQuality": QUALITY[port["Send quality"]],
        "esmcPortDnuGroup": port["DNU group"].replace("N/A", "0"),
        "esmcPortReplaceClockId": STATE[port["Replace clockid"]],
        "esmcPortForcedRxQuality": QUALITY[port["Quality RX configured"]],
        "esmcPortForcedTxQuality": QUALITY[port["Quality TX configured"]],
    }


def compare(switch, manager):
    clock = manager.walk("esmcSsmMIB")
    for name, value in expected_clock(switch).items():
        assert clock[name + ".0"].strip('"') == value, name
    for port, index in (("p1", switch.p1), ("p2", switch.p2)):
        for name, value in expected_port(switch, port).items():
            assert clock[f"{name}.{index}"] == value, (port, name)
    return clock


def lint(path):
    """What the checker says of the module, its imports searched in `path`. Its exit status says nothing."""
    done = subprocess.run(["smilint", "-s", "-m", "-l", "3", "./ESMC-SSM-MIB.txt"], cwd=ROOT / "mibs", capture_output=True,
                          text=True, env={**os.environ, "SMIPATH": path})
    return done.stdout + done.stderr


def test_module_is_clean(mibs):
    if not shutil.which("smilint"):
        pytest.skip("smilint is not installed")
    assert lint(mibs) == ""
    assert "module-not-found" in lint("/nonexistent")  # the check can fail


def test_tools_print_what_the_show_commands_show(managed):
    switch, manager = managed
    compare(switch, manager)
    t1 = Port(switch.lab.tester, "t1")
    switch.configure("clock synce local-quality option1 eec1", "clock synce local-priority 9", "clock synce ssm extend",
                     "interface p2", "clock synce dnu-group 12", "clock synce quality-eth tx ssu-b",
                     "clock synce priority 3", "exit", "interface p1", "clock synce extend replace-clockid")
    neighbour = Neighbour(t1, PRC)
    switch.wait_clock(source="p1")
    wait_until(lambda: neighbour.keep() and manager.get("esmcRunningState.0") == "lock", 5)
    neighbour.keep()
    values = compare(switch, manager)
    assert values["esmcSelectedPort.0"] == str(switch.p1)
    assert values["esmcCurrentQuality.0"] == "prc"
    assert values["esmcRecoverySelect.0"] == "syncE"
    # The other ways to ask give the same.
    stable = [name for name in values if not name.startswith(("esmcPortReceived", "esmcPortSent"))]
    bulk = manager.walk("esmcSsmMIB", tool="snmpbulkwalk")
    assert list(bulk) == list(values)
    assert [bulk[name] for name in stable] == [values[name] for name in stable]
    table = manager.tool("snmptable", "esmcPortTable").stdout
    row = next(line.split() for line in table.splitlines() if line.split()[:1] == [str(switch.p2)])
    assert row[1:4] == ["enabled", "all", "3"] and "ssuB" in row


def test_every_writable_object_is_set_and_the_tools_say_why_not(managed):
    switch, manager = managed
    p1, p2 = switch.p1, switch.p2
    accepted = {
        "esmcDeviceType.0": "3", "esmcLocalQuality.0": "4", "esmcLocalPriority.0": "17", "esmcExtensionEnabled.0": "1",
        "esmcRecoverySelect.0": "3", "esmcForceSwitch.0": p1, f"esmcPortMode.{p2}": "5", f"esmcPortPriority.{p2}": "5",
        f"esmcPortDnuGroup.{p2}": "255", f"esmcPortReplaceClockId.{p2}": "1", f"esmcPortForcedRxQuality.{p2}": "4",
        f"esmcPortForcedTxQuality.{p2}": "2", f"esmcPortSynceEnabled.{p2}": "2", "esmcSsmEnabled.0": "2",
        "esmcSynceEnabled.0": "2",
    }
    for name, value in accepted.items():
        assert manager.set(name, "i", str(value)) == "noError", name
    compare(switch, manager)
    clock = switch.clock()
    assert (clock["Device priority"], clock["Switch force interface"]) == ("17", "p1")
    assert clock["Enable global synce"] == "disable"
    before = manager.walk("esmcSsmMIB")
    refused = [
        ("2.0", "i", "3", "wrongValue"), ("2.0", "u", "1", "wrongType"), ("5.0", "i", "3", "genError"),
        ("12.0", "i", "9999", "inconsistentValue"), ("6.0", "i", "1", "notWritable"), ("2.1", "i", "1", "noCreation"),
        (f"13.1.12.{p1}", "i", "5", "inconsistentValue"), (f"13.1.5.{p1}", "i", "1", "readOnly"),
        ("13.1.4.4711", "i", "1", "noSuchName"),
    ]
    for name, kind, value, status in refused:
        answer = manager.set(f"{BASE}.{name}", kind, value, raw=True)
        assert answer.split()[0] == status, (name, kind, value, answer)
    assert manager.walk("esmcSsmMIB") == before


def test_set_of_several_objects_is_all_or_nothing(managed):
    switch, manager = managed
    p1, p2 = switch.p1, switch.p2
    switch.configure("clock synce ssm extend", "clock synce local-priority 20", "interface p2", "clock synce dnu-group 3",
                     "no clock synce ssm enable rx", "exit", "interface p1", "clock synce quality-eth rx ssu-a")
    before = manager.walk("esmcSsmMIB")
    running = switch.show("running-config")
    objects = ["esmcLocalPriority.0", "i", "33", "esmcExtensionEnabled.0", "i", "2", f"esmcPortDnuGroup.{p2}", "i", "9",
               f"esmcPortMode.{p2}", "i", "1", f"esmcPortMode.{p2}", "i", "5", f"esmcPortForcedRxQuality.{p1}", "i", "15",
               "esmcLocalPriority.0", "i", "44"]
    answer = manager.set(*objects, "esmcForceSwitch.0", "i", "4711")
    assert answer.startswith("inconsistentValue") and "esmcForceSwitch" in answer
    assert manager.walk("esmcSsmMIB") == before
    assert switch.show("running-config") == running
    assert manager.set(*objects, "esmcForceSwitch.0", "i", str(p2)) == "noError"
    assert manager.get("esmcLocalPriority.0", "esmcForceSwitch.0", f"esmcPortMode.{p2}") == ["44", str(p2), "transmit"]


def test_hanging_and_dying_master_costs_nothing(managed, release_only):
    """snmpd stands still for 20 s, is killed, is started again: frames leave on time all along."""
    switch, manager = managed
    t2 = Port(switch.lab.tester, "t2")
    t2.expect(3, event=False, quality=DNU)
    times = []

    def listen(seconds):
        times.extend(seen.when for seen in t2.frames(seconds) if not seen.event)

    listen(3)
    manager.snmpd.send(signal.SIGSTOP)
    listen(20)
    manager.snmpd.send(signal.SIGCONT)
    manager.wait_registered(5)
    wait_until(lambda: manager.tool("snmpget", "esmcDeviceType.0", check=False, seconds=1).stdout.strip().endswith("default"),
               5, "back after a halt")
    listen(1)
    manager.snmpd.kill()
    listen(6)
    assert "not connected" in switch.show("snmp")
    manager.start().wait_registered(5)
    assert manager.get("esmcDeviceType.0") == "default"
    listen(3)
    gaps = [after - before for before, after in zip(times, times[1:])]
    print(f"{len(gaps)} gaps, {min(gaps) * 1000:.1f} to {max(gaps) * 1000:.1f} ms")
    assert len(gaps) >= 30
    assert all(abs(gap - 1) <= 0.020 for gap in gaps), [round(gap, 4) for gap in gaps if abs(gap - 1) > 0.020]


def test_other_links_to_the_master(switch, mibs):
    manager = Manager(switch, mibs, more=",tcp:127.0.0.1:1705,/run/other").start().wait_registered()
    for line in ("snmp agentx tcp 127.0.0.1 1705", "snmp agentx unix /run/other"):
        switch.configure(line)
        assert line in switch.show("running-config").splitlines()
        manager.wait_registered()
        assert line.split()[-1] in switch.show("snmp")
        assert manager.get("esmcDeviceType.0") == "default"
    switch.configure("snmp agentx unix /run/nobody")
    wait_until(lambda: "not connected" in switch.show("snmp"), 3)
    assert "No such file" in switch.show("snmp")
    switch.configure("no snmp agentx")
    manager.wait_registered()
    assert "snmp agentx" not in switch.show("running-config")


def test_traps_name_what_changed(managed, mibs):
    switch, manager = managed
    p1 = switch.p1
    switch.path("/run/snmptrapd.conf").write_text("disableAuthorization yes\n")
    # The receiver runs inside, where /tmp, and with it perhaps this tree, is another one.
    shutil.copytree(mibs, switch.path("/run/mibs"))
    shutil.copy(ROOT / "mibs/ESMC-SSM-MIB.txt", switch.path("/run/mibs"))
    receiver = switch.spawn("snmptrapd", ["env", "SNMP_PERSISTENT_DIR=/run/snmptrap", "snmptrapd", "-f", "-Lo", "-C", "-c",
                                          "/run/snmptrapd.conf", "-n", "-Oqs", "-M", "/run/mibs", "-m", "ESMC-SSM-MIB",
                                          "udp:127.0.0.1:1162"])
    receiver.wait_log("NET-SNMP version")

    def told(*expected):
        """Whether a trap has come for each of them: its name, and objects that it carries."""
        traps = receiver.text().replace("\t", "\n ").split("snmpTrapOID.0")
        return all(any(trap.split()[:1] == [name] and all(part in trap for part in parts) for trap in traps)
                   for name, *parts in expected)

    t1 = Port(switch.lab.tester, "t1")
    Neighbour(t1, PRC)
    switch.wait_clock(source="p1")
    switch.configure("snmp notifications")
    assert "snmp notifications" in switch.show("running-config").splitlines()
    # Nothing more comes from p1: after its time-out there is no source.
    wait_until(lambda: told(
        ("esmcSourceChanged", f"esmcPreviousPort.0 {p1}", "esmcSelectedPort.0 0"),
        ("esmcPortEsmcLost", f"esmcPortReceivedQuality.{p1} na", f"esmcPortLink.{p1} up"),
        ("esmcRunningStateChanged", "esmcRunningState.0 holdover"),
        ("esmcCurrentQualityChanged", "esmcCurrentQuality.0 eec1"),
    ), 10, "the loss of the source is told")
    neighbour = Neighbour(t1, PRC)
    wait_until(lambda: neighbour.keep() and told(
        ("esmcSourceChanged", "esmcPreviousPort.0 0", f"esmcSelectedPort.0 {p1}", "esmcCurrentQuality.0 prc"),
        ("esmcPortEsmcReceived", f"esmcPortReceivedQuality.{p1} prc"),
        ("esmcRunningStateChanged", "esmcRunningState.0 lock"),
        ("esmcDpllStateChanged", "esmcDpllState.0 lock"),
    ), 10, "the return of the source is told")


def test_two_hundred_and_fifty_five_ports_are_walked_quickly(lab, mibs, release_only):
    switch = lab.switch("sw")
    other = lab.node("other", board=None)
    switch.ip_batch([f"link add d{n} index {n + 1} type veth peer name e{n} netns {other.pid}" for n in range(1, 256)])
    switch.start_nsmd("--port", "d*", "--dpll", "sim")
    switch.start_esmcd()
    manager = Manager(switch, mibs).start().wait_registered()
    wait_until(lambda: len(manager.walk("esmcPortLink")) == 255, 10, "255 ports")
    best = 9
    end = time.monotonic() + 30  # other programs may have the processors meanwhile: the best walk counts
    while time.monotonic() < end and best >= 0.2:
        began = time.monotonic()
        done = switch.run("snmpbulkwalk", "-v2c", "-c", "public", "-m", "", "-On", "127.0.0.1", f"{BASE}.13", net_only=True)
        best = min(best, time.monotonic() - began)
        indexes = [int(line.split()[0].rsplit(".", 1)[1]) for line in done.stdout.splitlines()]
        assert indexes == sorted(set(indexes)) * 12 and len(indexes) == 255 * 12  # each column in the order of indexes
    print(f"255 ports, ms with the start of the tool: {round(best * 1000)}")
    assert best < 0.2
