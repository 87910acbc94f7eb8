"""The NSM link, octet by octet: the test plays the network services manager."""

import struct
import time

import fake_nsm
import pytest
from fake_nsm import (CLOCK_STATE, GEPHY, GLOBAL_ENABLE, HELLO, HELLO_ACK, HOLDOVER, HOLDOVER_STATE, LINK_ADD, LINK_DELETE,
                      LINK_UP, LOCK, SELECTED, SYNC_DONE, Nsm)
from lab import wait_until
from wire import PRC, SSU_A, Neighbour, Port, esmc


@pytest.fixture
def linked(lab):
    """A switch without nsmd, its daemon about to connect to `sw.nsm`; ports p1 and p2 with kernel indexes."""
    sw = lab.switch("sw")
    lab.tester = lab.node("tester", board=None)
    lab.link(sw, "p1", lab.tester, "t1")
    lab.link(sw, "p2", lab.tester, "t2")
    sw.kernel = {name: int(sw.run("cat", f"/sys/class/net/{name}/ifindex", net_only=True, check=False).stdout or 0)
                 for name in ("p1", "p2")}
    if not all(sw.kernel.values()):  # sysfs may show another namespace's interfaces
        sw.kernel = {name: int(sw.ip("-o", "link", "show", name).stdout.split(":")[0]) for name in ("p1", "p2")}
    sw.ports = [dict(index=1, name="p1", kernel=sw.kernel["p1"]), dict(index=2, name="p2", kernel=sw.kernel["p2"])]
    sw.nsm = Nsm(sw)
    sw.start_esmcd()
    return sw


ENABLE = ["clock synce global-enable", "clock synce ssm enable", "interface p1", "clock synce enable", "exit",
          "interface p2", "clock synce enable", "exit"]


def requests(messages):
    """(type, first word) of each request."""
    return [(message.type, message.words()[0]) for message in messages]


def test_hello_and_first_dump(linked):
    hello = linked.nsm.session(linked.ports)
    assert hello.length == len(hello.packet) == 16 and hello.sequence == 1
    assert struct.unpack(">HHI", hello.body) == (1, 36, 0)
    linked.wait_clock(id=fake_nsm.BRIDGE_ID, dpll="FreeRun", state="FreeRun")
    linked.wait_port("p1", up="enable", synce="disable")
    linked.wait_port("p2", up="enable")
    assert linked.nsm.collect() == []


def test_nothing_comes_before_the_acknowledgement(linked):
    linked.nsm.accept()
    linked.nsm.expect(HELLO)
    linked.wait_shell()
    linked.configure("clock synce global-enable")
    assert linked.nsm.receive(0.5) is None
    linked.nsm.send(HELLO_ACK, struct.pack(">I", 0))
    linked.nsm.state(2)
    assert linked.nsm.receive(0.5) is None, "a request before the dump was complete"
    linked.nsm.send(SYNC_DONE)
    assert linked.nsm.expect(GLOBAL_ENABLE).words() == (1,)


def test_refused_hello_is_tried_again(linked):
    linked.nsm.accept()
    linked.nsm.expect(HELLO)
    linked.nsm.send(HELLO_ACK, struct.pack(">I", 7))
    with pytest.raises(fake_nsm.Closed):
        linked.nsm.receive(2)
    linked.nsm.session(linked.ports)
    linked.wait_port("p1", up="enable")


def test_requests_of_a_selection_in_order(linked):
    linked.nsm.session(linked.ports)
    linked.wait_port("p2", up="enable")
    linked.configure(*ENABLE)
    assert requests(linked.nsm.collect()) == [(GLOBAL_ENABLE, 1)]
    t1, t2 = Port(linked.lab.tester, "t1"), Port(linked.lab.tester, "t2")

    t1.send(esmc(SSU_A))
    first = linked.nsm.collect()
    assert requests(first) == [(SELECTED, 1)]  # out of free-run: there is no holdover to leave
    assert first[0].words() == (1, 0)
    t2.send(esmc(PRC))
    assert requests(linked.nsm.collect()) == [(SELECTED, 2)]
    t2.send(esmc(PRC))
    assert linked.nsm.collect() == []

    # Both links go: holdover, told as 0. One returns: holdover ends, told as 1, before the source.
    linked.nsm.down(2)
    assert requests(linked.nsm.collect()) == [(SELECTED, 1)]
    linked.nsm.down(1)
    assert requests(linked.nsm.collect()) == [(HOLDOVER, 0)]
    linked.wait_clock(state="Holdover", source="N/A", quality="EEC1/SEC")
    linked.nsm.up(1)
    t1.send(esmc(SSU_A))
    assert requests(linked.nsm.collect()) == [(HOLDOVER, 1), (SELECTED, 1)]
    sequence = [message.sequence for message in first]
    assert sequence == [3], "hello, global enable, selected"


def test_clock_state_is_shown(linked):
    linked.nsm.session(linked.ports)
    for state, text, valid in ((LOCK, "Lock", "Valid"), (HOLDOVER_STATE, "Holdover", "Invalid"),
                               (99, "Temporary status", "Invalid"), (2, "FreeRun", "Invalid")):
        linked.nsm.state(state, 1)
        linked.wait_clock(dpll=text, valid=valid)


def test_gephy_roles(linked):
    linked.nsm.session(linked.ports)
    linked.wait_port("p2", up="enable")
    linked.configure("interface p1", "clock synce gephy master", "exit", "interface p2", "clock synce gephy slave")
    roles = [message.words() for message in linked.nsm.collect()]
    assert roles == [(1, 1, 1), (2, 1, 2)]
    refused = linked.cli("configure terminal", "clock synce ssm enable", check=False)
    assert refused.status == 1
    assert " % Port gephy role is configured manually, it can't enable ssm\n" in refused.out
    linked.configure("interface p1", "no clock synce gephy", "exit", "interface p2", "no clock synce gephy")
    assert [message.words() for message in linked.nsm.collect()] == [(1, 0, 0), (2, 0, 0)]
    # With SSM "gephy", selection sets the role itself.
    linked.configure("clock synce global-enable", "clock synce ssm enable gephy", "interface p1", "clock synce enable")
    linked.nsm.collect()
    Port(linked.lab.tester, "t1").send(esmc(PRC))
    assert [(m.type, m.words()) for m in linked.nsm.collect()] == [(SELECTED, (1, 0)), (GEPHY, (1, 1, 2))]


def test_restarted_nsm_is_told_everything_again_and_neighbours_notice_nothing(linked):
    linked.nsm.session(linked.ports, state=LOCK)
    linked.wait_port("p2", up="enable")
    linked.configure(*ENABLE, "interface p1", "clock synce priority 5", "exit")
    t1, t2 = Port(linked.lab.tester, "t1"), Port(linked.lab.tester, "t2")
    neighbour = Neighbour(t1, PRC)
    linked.wait_clock(source="p1", quality="PRC")
    made = requests(linked.nsm.collect())
    assert made == [(GLOBAL_ENABLE, 1), (SELECTED, 1)]
    t2.drain()

    linked.nsm.vanish()
    seen = []
    end = time.monotonic() + 2.5
    while time.monotonic() < end:
        neighbour.keep()
        seen += list(t2.frames(0.25))
    linked.nsm.listen()
    linked.nsm.session(linked.ports, state=LOCK)
    restated = requests(linked.nsm.collect())
    seen += list(t2.frames(0.2))
    assert restated == made, "the requests are stated again in their order"
    assert {(frame.quality, frame.event) for frame in seen} == {(PRC, False)}
    gaps = [later.when - earlier.when for earlier, later in zip(seen, seen[1:])]
    assert all(gap < 1.2 for gap in gaps), gaps
    assert linked.port("p1")["Port priority"] == "5"
    assert linked.clock()["Current selected interface"] == "p1"


def test_requests_made_while_nsm_is_away_are_kept(linked):
    linked.nsm.session(linked.ports)
    linked.wait_port("p2", up="enable")
    linked.nsm.vanish()
    linked.configure("clock synce global-enable")
    linked.nsm.listen()
    linked.nsm.session(linked.ports)
    assert requests(linked.nsm.collect()) == [(GLOBAL_ENABLE, 1)]


def test_dump_after_a_reconnection_is_reconciled(linked):
    linked.nsm.session(linked.ports)
    linked.wait_port("p2", up="enable")
    linked.configure("interface p1", "clock synce priority 5", "exit", "interface p2", "clock synce priority 6")
    linked.nsm.close()
    # p2 is gone, p1 is down now, p3 is new.
    linked.nsm.session([dict(linked.ports[0], up=False), dict(index=3, name="p3", kernel=77)])
    linked.wait_port("p3", up="enable")
    linked.wait_port("p1", up="disable", priority="5")
    wait_until(lambda: linked.port("p2") == {}, 2, "p2 is unbound")
    linked.nsm.add(**linked.ports[1])
    linked.wait_port("p2", up="enable", priority="255")


def test_unbind_with_and_without_the_interface(linked):
    linked.nsm.session(linked.ports)
    linked.wait_port("p2", up="enable")
    linked.configure(*ENABLE)
    Port(linked.lab.tester, "t1").send(esmc(PRC))
    linked.wait_clock(source="p1")
    linked.nsm.delete(1)
    linked.wait_clock(source="N/A", state="Holdover")
    assert linked.port("p1") == {}
    linked.nsm.add(**linked.ports[0])
    linked.wait_port("p1", up="enable", synce="disable")
    linked.nsm.delete(2, flags=1)
    wait_until(lambda: linked.port("p2") == {}, 2)
    assert "interface p2" not in linked.show("running-config")
    linked.nsm.delete(200)
    linked.nsm.down(200)
    linked.nsm.up(200)
    linked.wait_port("p1", up="enable")


def test_same_index_under_another_name_is_another_interface(linked):
    linked.nsm.session(linked.ports)
    linked.wait_port("p1", up="enable")
    linked.configure("interface p1", "clock synce priority 5")
    linked.nsm.add(index=1, name="uplink", kernel=linked.kernel["p1"])
    linked.wait_port("uplink", up="enable", priority="255")
    assert linked.port("p1") == {}


@pytest.mark.parametrize("index", [0, 9999, 0x80000000, 0xFFFFFFFF])
def test_impossible_indexes_are_refused(linked, index):
    linked.nsm.session(linked.ports)
    linked.wait_port("p1", up="enable")
    linked.nsm.add(index, "bad")
    linked.nsm.add(255, "last")
    linked.wait_port("last", up="enable")
    assert linked.port("bad") == {}


def test_interface_of_another_type_is_no_port(linked):
    linked.nsm.session([*linked.ports, dict(index=9, name="lag1", kind=1)])
    linked.wait_port("p1", up="enable")
    assert linked.port("lag1") == {}
    refused = linked.cli("configure terminal", "interface lag1", "clock synce enable", check=False)
    assert refused.status == 1 and "% Cannot configure on this interface\n" in refused.out


def garbage_packets():
    good = fake_nsm.link_record(7, "p7")
    header = lambda kind, length: struct.pack(">HHI", kind, length, 9)  # noqa: E731
    yield "an octet", b"\0"
    yield "half a header", b"\0\x0a\0"
    yield "a length too long", header(LINK_ADD, 100) + good
    yield "a length too short", header(LINK_ADD, 8) + good
    yield "a length of zero", header(LINK_ADD, 0) + good
    yield "an unknown type", header(999, 8)
    yield "our own type", header(HELLO, 16) + bytes(8)
    yield "a record cut short", header(LINK_ADD, 8 + 35) + good[:35]
    yield "an up without index", header(LINK_UP, 10) + b"\0\0"
    yield "a clock state without source", header(CLOCK_STATE, 12) + bytes(4)
    yield "a bridge without address", header(115, 8 + 24) + bytes(24)
    yield "a name without end", header(LINK_ADD, 44) + good[:20] + b"n" * 16
    yield "a name of nothing", header(LINK_ADD, 44) + good[:20] + bytes(16)
    yield "a long packet", header(LINK_ADD, 4000) + bytes(3992)
    yield "a second acknowledgement", header(HELLO_ACK, 12) + bytes(4)


def test_garbage_leaves_the_link_up(linked):
    linked.nsm.session(linked.ports)
    linked.wait_port("p2", up="enable")
    for _ in range(3):
        for _, packet in garbage_packets():
            linked.nsm.send_raw(packet)
    linked.nsm.state(LOCK)
    linked.wait_clock(dpll="Lock")
    linked.nsm.down(1)
    linked.wait_port("p1", up="disable")
    warnings = [line for line in linked.esmcd.text().splitlines() if " warning " in line]
    assert 1 <= len(warnings) <= 15, "each kind of fault is said, once a minute at most"


def test_later_fields_are_ignored(linked):
    linked.nsm.session(linked.ports)
    linked.nsm.send(LINK_ADD, fake_nsm.link_record(7, "p7") + b"later fields")
    linked.nsm.send(CLOCK_STATE, struct.pack(">III", LOCK, 1, 12345))
    linked.wait_port("p7", up="enable")
    linked.wait_clock(dpll="Lock")


def test_nsm_that_accepts_and_says_nothing_delays_nobody(linked):
    linked.nsm.accept()
    linked.wait_shell()
    for _ in range(20):
        began = time.monotonic()
        linked.clock()
        assert time.monotonic() - began < 1
    assert linked.esmcd.alive()


def test_nsm_that_does_not_read_delays_nobody(linked):
    """The socket's buffer fills up with requests; what can't be sent is kept as the last of its kind."""
    linked.nsm.session(linked.ports)
    linked.wait_port("p1", up="enable")
    toggles = ["clock synce global-enable", "no clock synce global-enable"] * 40
    for _ in range(12):
        linked.configure(*toggles)
    linked.configure("clock synce global-enable")
    messages = linked.nsm.collect()
    assert messages[-1].words() == (1,)
    linked.nsm.delete(2)
    wait_until(lambda: linked.port("p2") == {}, 3)


def test_connection_is_tried_at_least_once_a_second(linked):
    linked.nsm.accept()
    for _ in range(4):
        linked.nsm.close()
        began = time.monotonic()
        linked.nsm.accept(1.3)
        assert time.monotonic() - began < 1.2
