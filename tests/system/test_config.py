"""The configuration file: what it takes, and that what is written can be read back."""

FULL = """clock synce global-enable
clock synce ssm enable
clock synce local-quality option1 eec1
clock synce local-priority 100
clock synce slave-only
clock synce ssm extend standard
clock synce clock-type eeec
clock synce hold-off 500
clock synce wait-to-restore 60
clock synce non-revertive
!
interface p1
 clock synce priority 10
 clock synce enable
 no clock synce ssm enable rx
 clock synce dnu-group 7
 clock synce extend replace-clockid
 clock synce quality-eth rx ssu-a 
 clock synce quality-eth tx ssu-b 
 clock synce extend form own
 clock synce quality-eth maximum prtc
!
interface p2
 clock synce priority 20
 clock synce lockout
 clock synce enable
 clock synce wait-to-restore 0
 clock synce quality-eth minimum ssu-b
!
interface p9
 clock synce priority 9
 clock synce enable
!
"""
FULL_LINES = [line for line in FULL.splitlines() if line != "!"]


def clock_lines(text):
    """The daemon's own part of a running configuration, which the platform's lines precede."""
    return [line for line in text.splitlines() if line.startswith((" ", "clock ", "interface ", "no clock"))]


def test_lines_wait_for_their_ports_and_are_written_and_read_again(linked):
    linked.path("/etc/esmcd.conf").write_text(FULL)
    linked.start_esmcd()
    assert clock_lines(linked.show("running-config")) == FULL_LINES and linked.port("p1") == {}
    linked.start_nsmd()
    linked.wait_clock(synce="enable", ssm="enable", priority="100", type="Slave-only", extension="enable")
    linked.wait_port("p1", up="enable", synce="enable", priority="10", esmc="ESMC TX", dnu_group="7", replace="enable",
                     forced_rx="SSU-A", forced_tx="SSU-B")
    linked.wait_port("p2", up="enable", synce="enable", priority="20", esmc="ESMC TX & RX", dnu_group="N/A")
    # It came up with its settings: its forced quality makes it the source without any frame, by one request.
    linked.wait_clock(source="p1", state="Lock", dpll="Lock")
    assert linked.nsmd.text().count("request: the clock source is") == 1
    written = linked.show("running-config")
    assert clock_lines(written) == FULL_LINES
    linked.esmcd.stop()
    linked.path("/run/again.conf").write_text(written)
    linked.start_esmcd("-f", "/run/again.conf")
    linked.wait_port("p2", priority="20", up="enable")
    linked.wait_port("p1", forced_tx="SSU-B")
    assert linked.show("running-config") == written
