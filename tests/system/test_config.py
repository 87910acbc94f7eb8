"""The configuration file: what it takes, that what is written can be read back, and where the log goes."""

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
FULL_LINES = [line for line in FULL.splitlines() if line != "!"]


def start_esmcd(sw, text):
    sw.path("/etc/esmcd.conf").write_bytes(text if isinstance(text, bytes) else text.encode())
    sw.start_esmcd()


def start(sw, text):
    sw.start_nsmd()
    start_esmcd(sw, text)


def clock_lines(text):
    """The daemon's own part of a running configuration, which the platform's lines precede."""
    return [line for line in text.splitlines() if line.startswith((" ", "clock ", "interface ", "no clock"))]


def test_file_is_applied_written_and_read_again(linked):
    start(linked, FULL)
    linked.wait_port("p1", up="enable")
    linked.wait_clock(synce="enable", ssm="enable", device_quality="EEC1", priority="100", type="Slave-only",
                      extension="enable")
    linked.wait_port("p1", synce="enable", priority="10", esmc="ESMC TX", dnu_group="7", replace="enable",
                     forced_rx="SSU-A", forced_tx="SSU-B")
    linked.wait_port("p2", synce="enable", priority="20", esmc="ESMC TX & RX", dnu_group="N/A")
    written = linked.show("running-config")
    assert clock_lines(written) == FULL_LINES
    linked.esmcd.stop()
    linked.path("/run/again.conf").write_text(written)
    linked.start_esmcd("-f", "/run/again.conf")
    linked.wait_port("p2", priority="20", up="enable")
    linked.wait_port("p1", forced_tx="SSU-B")
    assert linked.show("running-config") == written


def test_interface_lines_wait_for_their_port(linked):
    start_esmcd(linked, FULL + "interface p9\n clock synce priority 9\n clock synce enable\n!\n")
    all_lines = FULL_LINES + ["interface p9", " clock synce priority 9", " clock synce enable"]
    assert clock_lines(linked.show("running-config")) == all_lines
    assert linked.port("p1") == {}
    linked.start_nsmd()
    linked.wait_port("p1", up="enable", priority="10", dnu_group="7")
    linked.wait_port("p2", up="enable", priority="20")
    assert clock_lines(linked.show("running-config")) == all_lines
    # Run once, at the first bind: a port that goes and returns starts from defaults.
    other = linked.lab.node("other", board=None)
    linked.lab.link(linked, "p9", other, "t9")
    linked.wait_port("p9", up="enable", priority="9", synce="enable")
    linked.ip("link", "del", "p9")
    wait_until(lambda: linked.port("p9") == {}, 3)
    linked.lab.link(linked, "p9", other, "t9")
    linked.wait_port("p9", up="enable", priority="255", synce="disable")


def test_lines_run_before_the_port_comes_up(linked):
    """A port that is up when it is bound comes up with its settings: a forced quality makes it the source at once,
    without any frame, by one request."""
    start(linked, "clock synce global-enable\nclock synce ssm enable\ninterface p1\n clock synce enable\n"
                  " clock synce quality-eth rx prc\n!\n")
    linked.wait_clock(source="p1", state="Lock", dpll="Lock")
    assert linked.port("p1")["Quality RX configured"] == "PRC"
    assert linked.nsmd.text().count("request: the clock source is") == 1


def test_any_content_is_survived(linked):
    """Blanks, carriage returns, very long lines, zeros, directives, very many bad lines, and no newline at the end."""
    start(linked, b"  \t\n\n\t!\nclock   synce\t global-enable  \r\n" + b"x" * (1 << 20) + b"\n\0\0\0\nclo\0ck\n"
                  b"interface " + b"p " * 20000 + b"\ninterface " + b"n" * 3000 + b"\n clock synce enable\n!\n"
                  b"interface %n%s%d\n clock synce %n%n\n!\n%s%n\n" + bytes(range(256)) * 100 + b"\n" +
                  b"bad line\n" * 10000 + b"clock synce local-priority 44")
    linked.wait_clock(synce="enable", priority="44")
    linked.wait_port("p1", up="enable")
    assert "/etc/esmcd.conf:5: " in linked.esmcd.text(), "what is refused is named"


def test_debug_lines_are_gated(linked):
    start(linked, FULL)
    linked.wait_port("p1", up="enable")
    before = linked.esmcd.text()
    assert "ssm_pdu_tx" not in before and "SEND TIMER" not in before
    linked.cli("debug ssm timer", "debug ssm event")
    linked.esmcd.wait_log("SEND TIMER: port p1 send timer expiry")
    linked.esmcd.wait_log("ssm_pdu_tx: Sending ssm pdu on port p2")


def test_log_file_and_level(linked):
    start(linked, "log file /run/esmcd.log\nlog level warning\nclock synce global-enable\n")
    linked.cli("configure terminal", "log level debug", "exit", "debug ssm cli", "configure terminal",
               "clock synce local-priority 5")
    log = linked.path("/run/esmcd.log")
    wait_until(lambda: "clock synce local-priority 5" in log.read_text(), 3, "the trace line is in the file")
    assert log.stat().st_mode & 0o777 == 0o640
    refused = linked.cli("configure terminal", "log file /no/such/folder/esmcd.log", check=False)
    assert refused.status == 1 and refused.out.startswith("%")
    assert "log file /run/esmcd.log\n" in linked.show("running-config")
    linked.configure("no log file", "clock synce local-priority 6")
    linked.esmcd.wait_log("clock synce local-priority 6")
    assert "clock synce local-priority 6" not in log.read_text()


def test_full_disk_for_the_log_costs_only_lines(linked):
    """A log file on a full file system: lines are lost, nothing else is."""
    linked.run("sh", "-c", "mkdir /run/small && mount -t tmpfs -o size=16k tmpfs /run/small")
    start(linked, "log file /run/small/esmcd.log\nclock synce global-enable\nclock synce ssm enable\n"
                  "interface p2\n clock synce enable\n")
    linked.wait_port("p2", up="enable")
    linked.cli("debug ssm all")
    t2 = Port(linked.lab.tester, "t2")
    for _ in range(200):
        t2.send(esmc(PRC))
    wait_until(lambda: linked.path("/run/small/esmcd.log").stat().st_size > 15000, 5, "the disk is full")
    linked.wait_clock(5, source="p2")
