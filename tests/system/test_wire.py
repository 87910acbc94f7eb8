"""What leaves a port and what is taken from it, seen by a protocol analyser and made by a packet library."""

import json
import struct
import subprocess
import time

from lab import CLOCK_LABELS, wait_until
from wire import DNU, EEC1, PRC, SSU_A, SSU_B, Neighbour, esmc


EXTENDED = ["essm", "clockid", "flag_mixed", "flag_chain", "eeec", "eec", "reserved"]
FIELDS = ["eth.dst", "eth.type", "slow.subtype", "ossp.itu.subtype", "ossp.esmc.version", "ossp.esmc.event_flag",
          "ossp.esmc.tlv_type", "ossp.esmc.tlv_length", "ossp.esmc.tlv_ql_ssm", "_ws.col.Info", "_ws.malformed",
          "_ws.expert.message", *("ossp.esmc.tlv_ext_ql_" + field for field in EXTENDED)]


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
    first = enabled.t2.expect(event=False, quality=DNU)
    neighbour = Neighbour(enabled.t1, PRC)
    event = enabled.t2.expect(event=True, quality=PRC)
    neighbour.keep()
    enabled.t1.drain()
    frames = [first, event, enabled.t2.expect(event=False, quality=PRC),
              enabled.t1.expect(event=False, quality=DNU)]
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


ORIGIN, OTHER = bytes.fromhex("0a0b0cfffe0d0e0f"), bytes.fromhex("1122334455667788")
# Two frames of the standard's form, octet by octet: an event of a PRC behind one eEEC, and a PRTC behind two and five EECs.
EVENT_PRC, PRTC = (bytes.fromhex(text).ljust(60, b"\0") for text in (
    "0180c20000020013c4120f0d8809 0a0019a70001 18000000 01000402 020014ff1122334455667788 00 01 00",
    "0180c20000020200000000018809 0a0019a70001 10000000 01000402 020014200a0b0cfffe0d0e0f 03 02 05"))


def made_by_scapy(quality, event=0, **extended):
    """A neighbour's frame, with an extended TLV if one of its fields is named."""
    from scapy.contrib.esmc import ESMC, EQLTLV, QLTLV
    from scapy.contrib.slowprot import SlowProtocol
    from scapy.layers.l2 import Ether
    frame = Ether(dst="01:80:c2:00:00:02", src="02:00:00:00:00:99") / SlowProtocol() / ESMC(event=event)
    return bytes(frame / QLTLV(ssmCode=quality) / EQLTLV(**extended) if extended else frame / QLTLV(ssmCode=quality))


def test_frame_made_by_scapy_is_taken(enabled):
    enabled.t1.send(made_by_scapy(SSU_A))
    enabled.wait_clock(source="p1", quality="SSU-A", state="Lock")
    enabled.wait_port("p1", rx="SSU-A", receiving="enable")
    # Who sent it is known, and is told when it is somebody else.
    assert enabled.show("clock synce brief").splitlines()[1].endswith(" 02:00:00:00:00:99")
    enabled.t1.send(esmc(SSU_A, source=bytes.fromhex("020000000098")))
    enabled.esmcd.wait_log("neighbour of p1 is now 02:00:00:00:00:98 (was 02:00:00:00:00:99")
    # With its enhanced TLV, as an event: the quality counts, and an event does not restart the time-out.
    enabled.t2.send(made_by_scapy(PRC, event=1, clockIdentity=bytes(range(1, 9))))
    enabled.wait_clock(source="p2", quality="PRC")
    assert enabled.port("p2")["Timeout timer running"] == "disable"


def test_standards_form_is_understood_and_sent(enabled, tmp_path):
    """Each frame heard on p1 has an event PDU leave p2, which the analyser must find nothing wrong with."""
    enabled.configure("clock synce ssm extend standard", "clock synce clock-type eeec")
    alone = enabled.t2.expect(event=False, standard=True, quality=DNU)
    own = bytes.fromhex(enabled.clock()[CLOCK_LABELS["id"]].replace(":", ""))
    scapy_chain = {"clockIdentity": ORIGIN, "flag": 2, "cascaded_eEEcs": 255, "cascaded_EEcs": 4}
    cases = [  # frame heard; code, enhanced code, identity, (flags, eEECs, EECs) and name of what is sent
        (esmc(PRC, standard=(0xFF, OTHER, 0, 0, 0)), PRC, 0xFF, OTHER, (0, 1, 0), "QL-PRC"),
        (PRTC, PRC, 0x20, ORIGIN, (3, 3, 5), "QL-PRTC"),
        (EVENT_PRC, PRC, 0xFF, OTHER, (0, 2, 0), "QL-PRC"),
        (esmc(PRC, standard=(0x20, ORIGIN, 3, 1, 5)), PRC, 0x20, ORIGIN, (3, 2, 5), "QL-PRTC"),
        (made_by_scapy(PRC, enhancedSsmCode=0x21, **scapy_chain), PRC, 0x21, ORIGIN, (2, 255, 4), "QL-ePRTC"),
        (made_by_scapy(PRC, enhancedSsmCode=0x23, **scapy_chain), PRC, 0x23, ORIGIN, (2, 255, 4), "QL-ePRC"),
        (made_by_scapy(EEC1, enhancedSsmCode=0x22, **scapy_chain), EEC1, 0x22, ORIGIN, (2, 255, 4), "QL-eEEC"),
        (made_by_scapy(SSU_A, event=1, clockIdentity=OTHER), SSU_A, 0xFF, OTHER, (0, 2, 0), "QL-SSU-A"),
        (esmc(SSU_B), SSU_B, 0xFF, own, (3, 1, 0), "QL-SSU-B"),
        (esmc(EEC1, extension=(ORIGIN, 4)), EEC1, 0xFF, ORIGIN, (3, 1, 4), "QL-EEC1"),
        (esmc(PRC, standard=(0x20, ORIGIN, 0, 0, 0), length=19), PRC, 0xFF, own, (3, 1, 0), "QL-PRC")]
    sent = [alone]
    for frame, code, enhanced, *_ in cases:
        enabled.t2.drain()
        enabled.t1.send(frame)
        sent.append(enabled.t2.expect(event=True, quality=code, enhanced=enhanced))
    port = json.loads(enabled.show("clock synce json"))["ports"][0]
    assert port["unknown_tlv"] == 1 and port["received_form"] is None
    # In the same state we say the same octets; with a source, of course, from our address.
    assert (sent[1].frame[14:], sent[4].frame[20:21]) == (EVENT_PRC[14:], b"\x18")
    assert sent[4].frame[21:] == PRTC[21:]
    enabled.t1.drain()
    sent.append(enabled.t1.expect(event=False, quality=DNU))
    expected = [(DNU, 0xFF, own, (0, 1, 0), "QL-DNU"), *(case[1:] for case in cases), (DNU, 0xFF, own, (3, 1, 0), "QL-DNU")]
    for fields, (code, enhanced, identity, (flags, eeec, eec), name) in zip(
            decode(tmp_path, [seen.frame for seen in sent]), expected, strict=True):
        assert (fields["_ws.malformed"], fields["_ws.expert.message"]) == ("", ""), name
        assert (fields["ossp.esmc.tlv_length"], int(fields["ossp.esmc.tlv_ql_ssm"], 16)) == ("0x0004,0x0014", code)
        values = [int(fields["ossp.esmc.tlv_ext_ql_" + field], 0) for field in EXTENDED]
        assert values == [enhanced, int.from_bytes(identity, "big"), flags & 1, flags >> 1, eeec, eec, 0], name
        assert fields["_ws.col.Info"].endswith(" " + name)


def test_both_forms_and_both_options_on_one_switch(enabled):
    enabled.configure("clock synce ssm extend standard", "interface p2", "clock synce extend form own")
    enabled.t1.send(esmc(PRC, standard=(0x20, ORIGIN, 0, 2, 3)))
    told = enabled.t2.expect(quality=PRC, extended=True, standard=False)
    assert (told.clock_id, told.hop, told.frame[40:]) == (ORIGIN, 6, bytes(20))
    back = enabled.t1.expect(quality=DNU, standard=True, clock_id=ORIGIN)
    assert (back.enhanced, back.chain) == (0xFF, (1, 2, 4))
    # The analyser knows no pairs of option 2.
    enabled.configure("clock synce local-quality option2 dus", "interface p2", "no clock synce extend form")
    for code, enhanced in ((1, 0x20), (1, 0x21), (1, 0x23), (10, 0x22), (4, 0xFF), (1, 0xFF)):
        enabled.t1.send(esmc(code, standard=(enhanced, ORIGIN, 0, 254, 255)))
        told = enabled.t2.expect(event=True, quality=code, enhanced=enhanced)
        assert (told.clock_id, told.chain, told.frame[43:]) == (ORIGIN, (1, 254, 255), bytes(17))


def test_changes_are_told_at_once_and_the_last_one_counts_after_a_flood(enabled, late):
    """Each frame is a change of the clock: the worst that a neighbour can do, with nothing held back."""
    machine = late(enabled.esmcd.pid)
    enabled.t2.drain()
    for quality in (SSU_B, PRC, SSU_A):
        began = time.monotonic()
        enabled.t1.send(esmc(quality, event=True))
        took = enabled.t2.expect(event=True, quality=quality).when - began
        assert took < (0.5 if enabled.lab.sanitized else 0.1) + machine.late
    enabled.configure("slow-protocols rate-limit off")
    for number in range(4000):
        enabled.t1.send(esmc((PRC, SSU_A, SSU_B, EEC1)[number % 4], event=number % 3 == 0))
        if number % 500 == 0:
            enabled.t2.drain()
    last = Neighbour(enabled.t1, SSU_B)  # again and again: the socket may have no room for one
    wait_until(lambda: last.keep() and enabled.clock()["Current quality"] == "SSU-B", what="the last one counts")


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
    alone = enabled.t2.expect(extended=True)
    assert alone.clock_id.hex() == "02aabbfffeccddee" and alone.hop == 0
    origin = bytes.fromhex("0a0b0cfffe0d0e0f")
    enabled.t1.send(esmc(PRC, extension=(origin, 4)))
    passed_on = enabled.t2.expect(quality=PRC)
    assert passed_on.clock_id == origin and passed_on.hop == 5
    enabled.t1.drain()
    assert enabled.t1.expect(event=False).quality == DNU
    enabled.ip("link", "set", "p1", "nomaster")
    enabled.wait_port("p1", up="enable")
    enabled.t1.send(esmc(SSU_A))
    enabled.wait_port("p1", rx="SSU-A")
