"""The NSM link, octet by octet: the test plays the network services manager."""

import struct
import time

import fake_nsm
import pytest
from fake_nsm import GEPHY, GLOBAL_ENABLE, HELLO, HOLDOVER, LOCK, SELECTED, SYNC_DONE, Nsm
from lab import wait_until
from wire import ENABLE, PRC, SSU_A, Neighbour, Port, esmc, gaps


@pytest.fixture
def sw(linked):
    """A switch without nsmd, its daemon about to connect to `sw.nsm`."""
    kernel = {name: int(linked.ip("-o", "link", "show", name).stdout.split(":")[0]) for name in ("p1", "p2")}
    linked.ports = [dict(index=index, name=name, kernel=kernel[name]) for index, name in ((1, "p1"), (2, "p2"))]
    linked.t1, linked.t2 = Port(linked.lab.tester, "t1"), Port(linked.lab.tester, "t2")
    linked.nsm = Nsm(linked)
    linked.start_esmcd()
    return linked


@pytest.fixture
def dumped(sw):
    """The same, with its ports told."""
    sw.hello = sw.nsm.session(sw.ports)
    sw.wait_port("p2", up="enable")
    return sw


def requests(messages):
    """(type, first word) of each request."""
    return [(message.type, message.words()[0]) for message in messages]


def test_hello_and_first_dump(dumped):
    assert dumped.hello.length == len(dumped.hello.packet) == 16 and dumped.hello.sequence == 1
    assert struct.unpack(">HHI", dumped.hello.body) == (1, 36, 0)
    dumped.wait_clock(id=fake_nsm.BRIDGE_ID, dpll="FreeRun", state="FreeRun")
    dumped.wait_port("p1", up="enable", synce="disable")
    assert dumped.nsm.collect() == []
    dumped.nsm.state(LOCK, 1)
    dumped.wait_clock(dpll="Lock", valid="Valid")


def test_nothing_is_asked_before_the_dump_is_complete(sw):
    sw.nsm.accept()
    sw.nsm.expect(HELLO)
    sw.configure("clock synce global-enable")
    assert sw.nsm.receive(0.5) is None
    sw.nsm.acknowledge()
    sw.nsm.state(2)
    assert sw.nsm.receive(0.5) is None
    sw.nsm.send(SYNC_DONE)
    assert sw.nsm.expect(GLOBAL_ENABLE).words() == (1,)


def test_requests_of_a_selection_in_order(dumped):
    nsm = dumped.nsm
    dumped.configure(*ENABLE)
    assert requests(nsm.collect()) == [(GLOBAL_ENABLE, 1)]
    dumped.t1.send(esmc(SSU_A))
    first = nsm.collect()
    assert [(m.type, m.words()) for m in first] == [(SELECTED, (1, 0))]  # out of free-run: no holdover to leave
    assert first[0].sequence == 3, "hello, global enable, selected"
    dumped.t2.send(esmc(PRC))
    assert requests(nsm.collect()) == [(SELECTED, 2)]
    dumped.t2.send(esmc(PRC))
    assert nsm.collect() == []

    # Both links go: holdover, told as 0. One returns: holdover ends, told as 1, before the source.
    nsm.down(2)
    assert requests(nsm.collect()) == [(SELECTED, 1)]
    nsm.down(1)
    assert requests(nsm.collect()) == [(HOLDOVER, 0)]
    dumped.wait_clock(state="Holdover", source="N/A", quality="EEC1/SEC")
    nsm.up(1)
    dumped.t1.send(esmc(SSU_A))
    assert requests(nsm.collect()) == [(HOLDOVER, 1), (SELECTED, 1)]


def test_gephy_roles(dumped):
    nsm = dumped.nsm
    dumped.configure("interface p1", "clock synce gephy master", "exit", "interface p2", "clock synce gephy slave")
    assert [message.words() for message in nsm.collect()] == [(1, 1, 1), (2, 1, 2)]
    dumped.configure("interface p1", "no clock synce gephy", "exit", "interface p2", "no clock synce gephy")
    assert [message.words() for message in nsm.collect()] == [(1, 0, 0), (2, 0, 0)]
    # With SSM "gephy", selection sets the role itself.
    dumped.configure("clock synce global-enable", "clock synce ssm enable gephy", "interface p1", "clock synce enable")
    nsm.collect()
    dumped.t1.send(esmc(PRC))
    assert [(m.type, m.words()) for m in nsm.collect()] == [(SELECTED, (1, 0)), (GEPHY, (1, 1, 2))]


def test_restarted_nsm_is_told_everything_again_and_neighbours_notice_nothing(dumped):
    nsm = dumped.nsm
    nsm.state(LOCK)
    dumped.configure(*ENABLE)
    neighbour = Neighbour(dumped.t1, PRC)
    dumped.wait_clock(source="p1", quality="PRC")
    made = requests(nsm.collect())
    assert made == [(GLOBAL_ENABLE, 1), (SELECTED, 1)]
    dumped.t2.drain()

    nsm.vanish()
    seen, end = [], time.monotonic() + 2.5
    while time.monotonic() < end:
        neighbour.keep()
        seen += list(dumped.t2.frames(0.25))
    nsm.listen()
    nsm.session(dumped.ports, state=LOCK)
    assert requests(nsm.collect()) == made, "the requests are stated again in their order"
    seen += list(dumped.t2.frames(0.2))
    assert {(frame.quality, frame.event) for frame in seen} == {(PRC, False)}
    assert all(gap < 1.2 for gap in gaps(seen)), gaps(seen)
    dumped.wait_port("p1", priority="10")
    dumped.wait_clock(source="p1")

    # What is asked while NSM is away is told at its return.
    nsm.vanish()
    dumped.configure("no clock synce global-enable")
    nsm.listen()
    nsm.session(dumped.ports, state=LOCK)
    assert (GLOBAL_ENABLE, 0) in requests(nsm.collect())


def test_ports_that_are_taken_away(dumped):
    nsm = dumped.nsm
    dumped.configure(*ENABLE)
    dumped.t1.send(esmc(PRC))
    dumped.wait_clock(source="p1")
    nsm.delete(1)
    dumped.wait_clock(source="N/A", state="Holdover")
    assert dumped.port("p1") == {}
    nsm.add(**dumped.ports[0])
    dumped.wait_port("p1", up="enable", synce="disable")
    nsm.delete(2, 1)  # the interface itself too
    wait_until(lambda: dumped.port("p2") == {}, 2)
    assert "interface p2" not in dumped.show("running-config")
    # A dump after a reconnection says what changed meanwhile.
    nsm.close()
    nsm.session([dict(dumped.ports[0], up=False), dict(index=3, name="p3", kernel=77)])
    dumped.wait_port("p3", up="enable")
    dumped.wait_port("p1", up="disable")


def test_nsm_that_does_not_answer_or_read_delays_nobody(sw):
    sw.nsm.accept()
    for _ in range(5):
        began = time.monotonic()
        sw.clock()
        assert time.monotonic() - began < 1
    sw.nsm.close()
    # The socket's buffer fills up with requests; what can't be sent is kept as the last of its kind.
    sw.nsm.session(sw.ports)
    for _ in range(12):
        sw.configure(*["clock synce global-enable", "no clock synce global-enable"] * 40)
    sw.configure("clock synce global-enable")
    assert sw.nsm.collect()[-1].words() == (1,)
    sw.nsm.delete(2)
    wait_until(lambda: sw.port("p2") == {}, 3)
