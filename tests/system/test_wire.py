"""What leaves a port and what is taken from it, seen by a protocol analyser and made by a packet library."""

import struct
import subprocess
import time

import pytest
from lab import wait_until
from wire import DNU, EEC1, GROUP, PRC, SSU_A, SSU_B, Neighbour, Port, esmc

BASE = ["clock synce global-enable", "clock synce ssm enable"]
BOTH_PORTS = ["interface p1", "clock synce enable", "exit", "interface p2", "clock synce enable", "exit"]


@pytest.fixture
def wired(switch):
    """A switch that runs on both ports, with the tester's ends as `switch.t1` and `switch.t2`."""
    switch.t1, switch.t2 = Port(switch.lab.tester, "t1"), Port(switch.lab.tester, "t2")
    switch.configure(*BASE, *BOTH_PORTS)
    switch.wait_port("p1", up="enable")
    switch.wait_port("p2", up="enable")
    return switch


def decode(tmp_path, frames):
    """The frames as tshark understands them: one dictionary each."""
    capture = tmp_path / "frames.pcap"
    with open(capture, "wb") as out:
        out.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))
        for frame in frames:
            out.write(struct.pack("<IIII", 0, 0, len(frame), len(frame)) + frame)
    fields = ["eth.dst", "eth.type", "slow.subtype", "ossp.oui", "ossp.itu.subtype", "ossp.esmc.version",
              "ossp.esmc.event_flag", "ossp.esmc.tlv_type", "ossp.esmc.tlv_length", "ossp.esmc.tlv_ql_ssm",
              "_ws.col.Info", "_ws.malformed", "_ws.col.Protocol"]
    argv = ["tshark", "-r", str(capture), "-T", "fields", "-E", "separator=|"]
    for field in fields:
        argv += ["-e", field]
    done = subprocess.run(argv, capture_output=True, text=True, check=True)
    return [dict(zip(fields, line.split("|"))) for line in done.stdout.splitlines()]


def test_tshark_decodes_what_leaves_a_port(wired, tmp_path):
    # An information frame of a clock without a source, then the events that a source and its change cause.
    first = wired.t2.expect(3, event=False, quality=DNU)
    neighbour = Neighbour(wired.t1, PRC)
    event = wired.t2.expect(2, event=True, quality=PRC)
    neighbour.keep()
    information = wired.t2.expect(2, event=False, quality=PRC)
    towards_source = wired.t1.expect(2, event=False, quality=DNU)
    frames = [first, event, information, towards_source]
    decoded = decode(tmp_path, [seen.frame for seen in frames])
    assert len(decoded) == 4
    for seen, fields in zip(frames, decoded):
        assert len(seen.frame) == 60
        assert fields["eth.dst"] == "01:80:c2:00:00:02"
        assert int(fields["eth.type"], 16) == 0x8809
        assert int(fields["slow.subtype"], 16) == 0x0A
        assert int(fields["ossp.itu.subtype"], 16) == 1
        assert int(fields["ossp.esmc.version"], 16) == 1
        assert int(fields["ossp.esmc.tlv_type"].split(",")[0], 16) == 1
        assert int(fields["ossp.esmc.tlv_length"].split(",")[0], 16) == 4
        assert fields["_ws.malformed"] == ""
    flags = [fields["ossp.esmc.event_flag"] in ("1", "True") for fields in decoded]
    assert flags == [False, True, False, False]
    assert [int(fields["ossp.esmc.tlv_ql_ssm"], 16) for fields in decoded] == [DNU, PRC, PRC, DNU]
    assert "Information" in decoded[0]["_ws.col.Info"] and "QL-DNU" in decoded[0]["_ws.col.Info"]
    assert "Time-critical" in decoded[1]["_ws.col.Info"] and "QL-PRC" in decoded[1]["_ws.col.Info"]


def test_source_address_is_the_ports_own(wired):
    address = wired.ip("-br", "link", "show", "p1").stdout.split()[2]
    assert wired.t1.expect(3, event=False).source.hex(":") == address


def test_frame_made_by_scapy_is_taken(wired):
    from scapy.contrib.esmc import ESMC, EQLTLV, QLTLV
    from scapy.contrib.slowprot import SlowProtocol
    from scapy.layers.l2 import Ether
    header = Ether(dst="01:80:c2:00:00:02", src="02:00:00:00:00:99")
    short = header / SlowProtocol() / ESMC(event=0) / QLTLV(ssmCode=SSU_A)
    wired.t1.send(bytes(short))
    wired.wait_clock(source="p1", quality="SSU-A", state="Lock")
    wired.wait_port("p1", rx="SSU-A", receiving="enable")
    # With its enhanced TLV, as an event: the quality counts, and an event does not restart the time-out.
    longer = header / SlowProtocol() / ESMC(event=1) / QLTLV(ssmCode=PRC) / EQLTLV(clockIdentity=bytes(range(1, 9)))
    wired.t2.send(bytes(longer))
    wired.wait_clock(source="p2", quality="PRC")
    assert wired.port("p2")["Timeout timer running"] == "disable"


def test_information_frames_leave_once_a_second(wired):
    wired.t1.drain()
    times = [seen.when for seen in wired.t1.frames(5.5) if not seen.event]
    gaps = [later - earlier for earlier, later in zip(times, times[1:])]
    assert len(gaps) >= 3
    assert all(0.95 < gap < 1.1 for gap in gaps), gaps


def test_event_frames_leave_at_once_on_every_other_port(wired):
    wired.t2.drain()
    for quality in (SSU_B, PRC, SSU_A):
        began = time.monotonic()
        wired.t1.send(esmc(quality, event=True))
        seen = wired.t2.expect(1, event=True, quality=quality)
        assert seen.when - began < (0.5 if wired.lab.sanitized else 0.1)


@pytest.mark.parametrize("name, frame", [
    ("another destination", esmc(PRC, destination=bytes.fromhex("0180c200000e"))),
    ("another slow protocol", esmc(PRC)[:14] + b"\x01" + esmc(PRC)[15:]),
    ("another EtherType", esmc(PRC)[:12] + bytes.fromhex("88cc") + esmc(PRC)[14:]),
    ("a VLAN tag", esmc(PRC)[:12] + bytes.fromhex("81000005") + esmc(PRC)[12:]),
    ("a quality of the other option", esmc(1)),
    ("a quality octet with its upper half set", esmc(0x12)),
    ("a stump", GROUP + bytes(6) + bytes.fromhex("88090a0019a70001")),
])
def test_frames_that_are_none_of_ours_change_nothing(wired, name, frame):
    wired.t1.send(frame)
    # A good frame behind it proves that the other one has been looked at.
    wired.t2.send(esmc(EEC1))
    wired.wait_clock(source="p2", quality="EEC1/SEC")
    assert wired.port("p1")["Receive quality"] == "N/A"
    assert wired.clock()["Current selected interface"] == "p2"


def test_dnu_from_the_source_ends_its_use_at_the_next_selection(wired):
    wired.t1.send(esmc(PRC))
    wired.wait_clock(source="p1")
    wired.t1.send(esmc(DNU))
    wired.wait_port("p1", rx="DNU")
    wired.t2.send(esmc(EEC1))
    wired.wait_clock(source="p2", quality="EEC1/SEC")


def test_extension_carries_clock_identity_and_hops(wired):
    own = wired.clock()["Device ClockID"]
    assert own.split(":")[3:5] == ["FF", "FE"]
    wired.configure("clock synce ssm extend")
    alone = wired.t2.expect(3, extended=True)
    assert alone.clock_id.hex(":").upper() == own and alone.hop == 0
    assert alone.payload[15:17] == bytes([0, 12]) and not any(alone.payload[26:])
    origin = bytes.fromhex("0a0b0cfffe0d0e0f")
    wired.t1.send(esmc(PRC, extension=(origin, 4)))
    passed_on = wired.t2.expect(2, quality=PRC)
    assert passed_on.clock_id == origin and passed_on.hop == 5
    # Its own identity coming back is a loop, whatever quality it claims.
    wired.t2.send(esmc(PRC, extension=(bytes.fromhex(own.replace(":", "")), 1)))
    wired.t1.send(esmc(SSU_B, extension=(origin, 4)))
    wired.wait_clock(source="p1", quality="SSU-B")


def test_port_directions(wired):
    wired.configure("interface p1", "no clock synce ssm enable tx")
    wired.t1.drain()
    wired.t2.expect(2.5, event=False)
    wired.t2.expect(2.5, event=False)
    assert not list(wired.t1.frames(0.2)), "a port that only receives has sent"
    wired.configure("interface p2", "no clock synce ssm enable rx")
    wired.t2.send(esmc(PRC))
    wired.t1.send(esmc(SSU_B))
    wired.wait_clock(source="p1", quality="SSU-B")
    assert wired.port("p2")["Receive quality"] == "N/A"


def test_bridge_port_still_speaks_for_itself(wired):
    """A port that joins a bridge keeps its frames, and the bridge's address becomes the clock's identity."""
    wired.ip("link", "add", "br0", "type", "bridge")
    wired.ip("link", "set", "br0", "address", "02:aa:bb:cc:dd:ee")
    wired.ip("link", "set", "br0", "up")
    wired.ip("link", "set", "p1", "master", "br0")
    wired.wait_clock(id="02:AA:BB:FF:FE:CC:DD:EE")
    wired.t1.send(esmc(PRC))
    wired.wait_clock(source="p1", quality="PRC")
    wired.t1.drain()
    assert wired.t1.expect(3, event=False).quality == DNU
    wired.ip("link", "set", "p1", "nomaster")
    wait_until(lambda: wired.port("p1").get("Port up") == "enable", 3, "p1 outlives its bridge")
    wired.t1.send(esmc(SSU_A))
    wired.wait_port("p1", rx="SSU-A")
