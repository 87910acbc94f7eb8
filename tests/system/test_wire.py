"""What leaves a port and what is taken from it, seen by a protocol analyser and made by a packet library."""

import struct
import subprocess
import time

from wire import DNU, EEC1, PRC, SSU_A, SSU_B, Neighbour, esmc


FIELDS = ["eth.dst", "eth.type", "slow.subtype", "ossp.itu.subtype", "ossp.esmc.version", "ossp.esmc.event_flag",
          "ossp.esmc.tlv_type", "ossp.esmc.tlv_length", "ossp.esmc.tlv_ql_ssm", "_ws.col.Info", "_ws.malformed"]


def decode(tmp_path, frames):
    """The frames as tshark understands them: one dictionary each."""
    capture = tmp_path / "frames.pcap"
    with open(capture, "wb") as out:
        out.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))
        for frame in frames:
            out.write(struct.pack("<IIII", 0, 0, len(frame), len(frame)) + frame)
    argv = ["tshark", "-r", str(capture), "-T", "fields", "-E", "separator=|", *("-e" + field for field in FIELDS)]
    done = subprocess.run(argv, capture_output=True, text=True, check=True)
    return [dict(zip(FIELDS, line.split("|"))) for line in done.stdout.splitlines()]


def test_tshark_decodes_what_leaves_a_port(enabled, tmp_path):
    # An information frame of a clock without a source, then the events that a source and its change cause.
    first = enabled.t2.expect(3, event=False, quality=DNU)
    neighbour = Neighbour(enabled.t1, PRC)
    event = enabled.t2.expect(2, event=True, quality=PRC)
    neighbour.keep()
    enabled.t1.drain()
    frames = [first, event, enabled.t2.expect(2, event=False, quality=PRC),
              enabled.t1.expect(2, event=False, quality=DNU)]
    decoded = decode(tmp_path, [seen.frame for seen in frames])
    assert len(decoded) == 4
    for seen, fields in zip(frames, decoded):
        assert (len(seen.frame), fields["eth.dst"], fields["_ws.malformed"]) == (60, "01:80:c2:00:00:02", "")
        numbers = {"eth.type": 0x8809, "slow.subtype": 0x0A, "ossp.itu.subtype": 1, "ossp.esmc.version": 1,
                   "ossp.esmc.tlv_type": 1, "ossp.esmc.tlv_length": 4}
        assert {name: int(fields[name].split(",")[0], 16) for name in numbers} == numbers
    flags = [fields["ossp.esmc.event_flag"] in ("1", "True") for fields in decoded]
    assert flags == [False, True, False, False]
    assert [int(fields["ossp.esmc.tlv_ql_ssm"], 16) for fields in decoded] == [DNU, PRC, PRC, DNU]
    for fields, words in zip(decoded, (("Information", "QL-DNU"), ("Time-critical", "QL-PRC"))):
        assert all(word in fields["_ws.col.Info"] for word in words)
    # Its source is the port itself.
    assert first.source.hex(":") == enabled.ip("-br", "link", "show", "p2").stdout.split()[2]


def test_frame_made_by_scapy_is_taken(enabled):
    from scapy.contrib.esmc import ESMC, EQLTLV, QLTLV
    from scapy.contrib.slowprot import SlowProtocol
    from scapy.layers.l2 import Ether
    header = Ether(dst="01:80:c2:00:00:02", src="02:00:00:00:00:99")
    short = header / SlowProtocol() / ESMC(event=0) / QLTLV(ssmCode=SSU_A)
    enabled.t1.send(bytes(short))
    enabled.wait_clock(source="p1", quality="SSU-A", state="Lock")
    enabled.wait_port("p1", rx="SSU-A", receiving="enable")
    # Who sent it is known, and is told when it is somebody else.
    assert enabled.show("clock synce brief").splitlines()[1].endswith(" 02:00:00:00:00:99")
    enabled.t1.send(esmc(SSU_A, source=bytes.fromhex("020000000098")))
    enabled.esmcd.wait_log("neighbour of p1 is now 02:00:00:00:00:98 (was 02:00:00:00:00:99")
    # With its enhanced TLV, as an event: the quality counts, and an event does not restart the time-out.
    longer = header / SlowProtocol() / ESMC(event=1) / QLTLV(ssmCode=PRC) / EQLTLV(clockIdentity=bytes(range(1, 9)))
    enabled.t2.send(bytes(longer))
    enabled.wait_clock(source="p2", quality="PRC")
    assert enabled.port("p2")["Timeout timer running"] == "disable"


def test_changes_are_told_at_once_and_none_is_lost_in_a_flood(enabled):
    """Each frame is a change of the clock: the worst that a neighbour can do, with nothing held back."""
    enabled.t2.drain()
    for quality in (SSU_B, PRC, SSU_A):
        began = time.monotonic()
        enabled.t1.send(esmc(quality, event=True))
        took = enabled.t2.expect(1, event=True, quality=quality).when - began
        assert took < (0.5 if enabled.lab.sanitized else 0.1)
    enabled.configure("slow-protocols rate-limit off")
    for number in range(4000):
        enabled.t1.send(esmc((PRC, SSU_A, SSU_B, EEC1)[number % 4], event=number % 3 == 0))
        if number % 500 == 0:
            enabled.t2.drain()
    enabled.t1.send(esmc(SSU_B))
    enabled.wait_clock(5, source="p1", quality="SSU-B")


def test_frames_that_are_none_of_ours_change_nothing(enabled):
    """The kernel's filter and the program together; what a frame's fields may be is another matter."""
    good = esmc(PRC)
    for frame in (good[:14] + b"\x01" + good[15:],  # another slow protocol
                  good[:12] + bytes.fromhex("88cc") + good[14:],  # another EtherType
                  good[:12] + bytes.fromhex("81000005") + good[12:]):  # a VLAN tag
        enabled.t1.send(frame)
    # A good frame behind them proves that they have been looked at.
    enabled.t2.send(esmc(EEC1))
    enabled.wait_clock(source="p2", quality="EEC1/SEC")
    assert enabled.port("p1")["Receive quality"] == "N/A"


def test_bridge_port_still_speaks_for_itself(enabled):
    """A port that joins a bridge keeps its frames, and the bridge's address becomes the clock's identity in place of
    the lowest of a port. The extension carries it."""
    lowest = min(enabled.ip("-br", "link", "show", port).stdout.split()[2] for port in ("p1", "p2")).upper()
    enabled.wait_clock(id=lowest[:8] + ":FF:FE" + lowest[8:])
    enabled.ip_batch(["link add br0 type bridge", "link set br0 address 02:aa:bb:cc:dd:ee", "link set br0 up",
                      "link set p1 master br0"])
    enabled.wait_clock(id="02:AA:BB:FF:FE:CC:DD:EE")
    enabled.configure("clock synce ssm extend")
    alone = enabled.t2.expect(3, extended=True)
    assert alone.clock_id.hex() == "02aabbfffeccddee" and alone.hop == 0
    origin = bytes.fromhex("0a0b0cfffe0d0e0f")
    enabled.t1.send(esmc(PRC, extension=(origin, 4)))
    passed_on = enabled.t2.expect(2, quality=PRC)
    assert passed_on.clock_id == origin and passed_on.hop == 5
    enabled.t1.drain()
    assert enabled.t1.expect(3, event=False).quality == DNU
    enabled.ip("link", "set", "p1", "nomaster")
    enabled.wait_port("p1", 3, up="enable")
    enabled.t1.send(esmc(SSU_A))
    enabled.wait_port("p1", rx="SSU-A")
