"""The configuration file: what it takes, what it refuses and says, and that what is written can be read back."""

import random
import re

import pytest
from lab import wait_until
from wire import PRC, Port, esmc

FULL = """clock synce global-enable
clock synce ssm enable
clock synce local-quality option1 eec1
clock synce local-priority 100
clock synce slave-only
clock synce ssm extend
!
interface p1
 clock synce priority 10
 clock synce enable
 no clock synce ssm enable rx
 clock synce dnu-group 7
 clock synce extend replace-clockid
 clock synce quality-eth rx ssu-a 
 clock synce quality-eth tx ssu-b 
!
interface p2
 clock synce priority 20
 clock synce enable
!
"""


@pytest.fixture
def wired(lab):
    """A switch with two linked ports whose daemons are not started yet."""
    sw = lab.switch("sw")
    lab.tester = lab.node("tester", board=None)
    lab.link(sw, "p1", lab.tester, "t1")
    lab.link(sw, "p2", lab.tester, "t2")
    return sw


def started_with(sw, text, nsm=True):
    content = text if isinstance(text, bytes) else text.encode()
    sw.path("/etc/esmcd.conf").write_bytes(content)
    if nsm:
        sw.start_nsmd()
    sw.start_esmcd()
    return sw


def clock_lines(text):
    """The daemon's own part of a running configuration, which the platform's lines precede."""
    lines = [line for line in text.splitlines()]
    return [line for line in lines if line.startswith((" ", "clock ", "interface ", "no clock"))]


def test_whole_file_is_applied(wired):
    started_with(wired, FULL)
    wired.wait_port("p1", up="enable")
    wired.wait_clock(synce="enable", ssm="enable", device_quality="EEC1", priority="100", type="Slave-only",
                     extension="enable")
    wired.wait_port("p1", synce="enable", priority="10", esmc="ESMC TX", dnu_group="7", replace="enable",
                    forced_rx="SSU-A", forced_tx="SSU-B")
    wired.wait_port("p2", synce="enable", priority="20", esmc="ESMC TX & RX", dnu_group="N/A")


def test_running_configuration_reads_back_to_itself(wired):
    started_with(wired, FULL)
    wired.wait_port("p1", forced_tx="SSU-B")
    wired.wait_port("p2", priority="20")
    written = wired.show("running-config")
    assert clock_lines(written) == [line for line in FULL.splitlines() if line != "!"]
    wired.esmcd.stop()
    wired.path("/run/again.conf").write_text(written)
    wired.start_esmcd("-f", "/run/again.conf")
    wired.wait_port("p2", priority="20", up="enable")
    wired.wait_port("p1", forced_tx="SSU-B")
    assert wired.show("running-config") == written


def test_interface_lines_wait_for_their_port(wired):
    started_with(wired, FULL, nsm=False)
    # Shown verbatim while they wait, and again after a save and a restart.
    assert clock_lines(wired.show("running-config")) == [line for line in FULL.splitlines() if line != "!"]
    assert wired.port("p1") == {}
    wired.start_nsmd()
    wired.wait_port("p1", up="enable", priority="10", dnu_group="7")
    wired.wait_port("p2", up="enable", priority="20")
    assert clock_lines(wired.show("running-config")) == [line for line in FULL.splitlines() if line != "!"]


def test_port_that_never_comes_keeps_its_lines(wired):
    started_with(wired, FULL + "interface p9\n clock synce priority 9\n clock synce enable\n!\n")
    wired.wait_port("p1", up="enable", priority="10")
    text = wired.show("running-config")
    assert "interface p9\n clock synce priority 9\n clock synce enable\n!\n" in text
    # Run once, at the first bind: a port that goes and returns starts from defaults.
    other = wired.lab.node("other", board=None)
    wired.lab.link(wired, "p9", other, "t9")
    wired.wait_port("p9", up="enable", priority="9", synce="enable")
    wired.ip("link", "del", "p9")
    wait_until(lambda: wired.port("p9") == {}, 3)
    wired.lab.link(wired, "p9", other, "t9")
    wired.wait_port("p9", up="enable", priority="255", synce="disable")


def test_lines_run_before_the_port_comes_up(wired):
    """A port that is up when it is bound comes up with its settings: a forced quality makes it the source at once,
    without any frame, by one request."""
    started_with(wired, "clock synce global-enable\nclock synce ssm enable\ninterface p1\n clock synce enable\n"
                        " clock synce quality-eth rx prc\n!\n")
    wired.wait_clock(source="p1", state="Lock", dpll="Lock")
    assert wired.port("p1")["Quality RX configured"] == "PRC"
    assert wired.nsmd.text().count("request: the clock source is") == 1


def test_bad_lines_are_named_and_the_rest_is_read(wired):
    started_with(wired, "clock synce global-enable\n"
                        "no such command\n"
                        "clock synce local-priority 0\n"
                        "clock synce local-priority 33\n"
                        "clock synce local-quality option1 prs\n"
                        "interface p1\n"
                        " clock synce priority 300\n"
                        " clock synce priority 12\n"
                        "clock synce ssm enable\n")
    wired.wait_clock(synce="enable", ssm="enable", priority="33")
    wired.wait_port("p1", priority="12")
    log = wired.esmcd.text()
    named = [line for line in log.splitlines() if "/etc/esmcd.conf:" in line]
    numbers = [int(re.search(r"/etc/esmcd\.conf:(\d+)", line).group(1)) for line in named]
    assert sorted(numbers) == [2, 3, 5, 7], named


def test_missing_file_and_missing_permission(wired):
    wired.start_esmcd("-f", "/run/no/such.conf")
    assert "/run/no/such.conf" in wired.esmcd.text()
    assert wired.clock()["Enable global synce"] == "disable"
    wired.esmcd.stop()
    wired.path("/run/folder").mkdir()
    wired.start_esmcd("-f", "/run/folder")
    assert any(" error " in line and "/run/folder" in line for line in wired.esmcd.text().splitlines())
    assert wired.clock()["Enable global synce"] == "disable"


def test_last_file_option_counts(wired):
    wired.path("/run/one.conf").write_text("clock synce local-priority 1\n")
    wired.path("/run/two.conf").write_text("clock synce local-priority 2\n")
    wired.start_esmcd("-f", "/run/one.conf", "-f", "/run/two.conf")
    assert wired.clock()["Device priority"] == "2"


@pytest.mark.parametrize("content", [
    pytest.param(b"clock synce global-enable\nclock synce local-priority 44", id="no newline at the end"),
    pytest.param(b"clock synce global-enable\r\nclock synce local-priority 44\r\n", id="carriage returns"),
    pytest.param(b"  \t\n\n\t!\nclock   synce\t global-enable  \n clock synce local-priority 44 \n", id="blanks and tabs"),
    pytest.param(b"x" * (1 << 20) + b"\nclock synce local-priority 44\n", id="a line of a megabyte"),
    pytest.param(b"\0\0\0\nclo\0ck\n\0\nclock synce local-priority 44\n", id="octets of zero"),
    pytest.param(b"bad line\n" * 10000 + b"clock synce local-priority 44\n", id="ten thousand bad lines"),
    pytest.param(b"interface " + b"p " * 20000 + b"\nclock synce local-priority 44\n", id="many words"),
    pytest.param(b"interface " + b"n" * 3000 + b"\n clock synce enable\n!\nclock synce local-priority 44\n", id="long names"),
    pytest.param(b"interface %n%s%d\n clock synce %n%n\n!\n%s%n\nclock synce local-priority 44\n", id="format directives"),
])
def test_any_content(wired, content):
    started_with(wired, content)
    wired.wait_clock(priority="44")
    wired.wait_port("p1", up="enable")
    wired.show("running-config")


@pytest.mark.parametrize("seed", range(6))
def test_random_octets(wired, seed):
    chance = random.Random(seed)
    content = bytes(chance.randrange(256) for _ in range(30000))
    # Half of the seeds are real lines with octets changed: those get further into the parser.
    if seed % 2:
        changed = bytearray(FULL.encode() * 40)
        for _ in range(len(changed) // 12):
            changed[chance.randrange(len(changed))] = chance.randrange(256)
        content = bytes(changed)
    started_with(wired, content)
    wired.wait_port("p1", up="enable")
    wired.show("running-config")
    assert wired.esmcd.stop() == 0


def test_debug_lines_are_gated(wired):
    started_with(wired, FULL)
    wired.wait_port("p1", up="enable")
    before = wired.esmcd.text()
    assert "ssm_pdu_tx" not in before and "SEND TIMER" not in before
    wired.cli("debug ssm timer", "debug ssm event")
    assert wired.cli("show debugging ssm").out == ("SSM debugging status:\n SSM timer debugging is on\n"
                                                  " SSM event debugging is on\n\n")
    wired.esmcd.wait_log("SEND TIMER: port p1 send timer expiry")
    wired.esmcd.wait_log("ssm_pdu_tx: Sending ssm pdu on port p2")
    wired.cli("no debug ssm all")
    assert wired.cli("show debugging ssm").out == "SSM debugging status:\n\n"


def test_log_file_and_level(wired):
    started_with(wired, "log file /run/esmcd.log\nlog level warning\nclock synce global-enable\n")
    wired.cli("configure terminal", "log level debug", "exit", "debug ssm cli", "configure terminal",
              "clock synce local-priority 5")
    log = wired.path("/run/esmcd.log")
    wait_until(lambda: "clock synce local-priority 5" in log.read_text(), 3, "the trace line is in the file")
    assert log.stat().st_mode & 0o777 == 0o640
    text = wired.show("running-config")
    assert "log file /run/esmcd.log\n" in text
    wired.configure("no log file", "clock synce local-priority 6")
    wired.esmcd.wait_log("clock synce local-priority 6")
    assert "clock synce local-priority 6" not in log.read_text()


def test_bad_log_file_is_refused(wired):
    started_with(wired, "")
    refused = wired.cli("configure terminal", "log file /no/such/folder/esmcd.log", check=False)
    assert refused.status == 1 and refused.out.startswith("%")


def test_full_disk_for_the_log_costs_only_lines(wired):
    """A log file on a full file system: lines are lost, nothing else is."""
    wired.run("sh", "-c", "mkdir /run/small && mount -t tmpfs -o size=16k tmpfs /run/small")
    started_with(wired, "log file /run/small/esmcd.log\nclock synce global-enable\nclock synce ssm enable\n"
                        "interface p2\n clock synce enable\n")
    wired.wait_port("p2", up="enable")
    wired.cli("debug ssm all")
    t2 = Port(wired.lab.tester, "t2")
    for _ in range(200):
        t2.send(esmc(PRC))
    wired.wait_clock(5, source="p2")
    wired.cli("no debug ssm all")
    assert wired.path("/run/small/esmcd.log").stat().st_size <= 16384
