"""Links as they are: pulled, flapping, renamed, moved, made anew, and very many of them at once."""

import re
import signal
import statistics
import time

import pytest
from lab import Plug, wait_until
from watch import Watch, status_of
from wire import EEC1, PRC, SSU_A, Neighbour, Port, esmc

pytestmark = pytest.mark.timing


@pytest.mark.parametrize("times", [1, 5])
def test_flap_is_delivered_as_down_and_up(enabled, times):
    """Too short for a message of its own. The neighbour keeps silent afterwards, so that only the down event can
    be what makes its quality forgotten."""
    def port_events():
        return re.findall(r" \(p1, kernel index .*\): (.*)", enabled.nsmd.text())

    plug = Plug(enabled.lab.tester, "t1")
    enabled.t1.send(esmc(PRC))
    enabled.wait_clock(source="p1", quality="PRC")
    before = len(port_events())
    for _ in range(times):
        plug.set(False)
        plug.set(True)
    enabled.wait_clock(3, source="N/A", state="Holdover", quality="EEC1/SEC")  # less than its time-out
    enabled.wait_port("p1", up="enable", rx="N/A", priority="10")
    events = port_events()[before:]
    assert events and events == ["down", "up"] * (len(events) // 2) and len(events) <= 2 * times, events
    # Anything heard now counts as ever.
    enabled.t1.send(esmc(SSU_A))
    enabled.wait_clock(source="p1", quality="SSU-A")


@pytest.mark.parametrize("held_back", [False, True], ids=["at once", "held back by the kernel"])
def test_pulled_cable_is_told_to_the_neighbours(configured, held_back):
    """Measured from the request that takes the link's far end down to the event frame that leaves the other port.
    With equal indexes at both ends the kernel takes the pair for a physical port, whose message it holds back for
    up to a second when a link changed just before: nsmd has to ask."""
    sw, lab, tester = configured, configured.lab, configured.lab.tester
    if held_back:
        sw.ip_batch(["link delete p1", f"link add p1 index 77 type veth peer name t1 index 77 netns {tester.pid}",
                     "link set p1 up"])
        tester.link_set("t1", True)
    lab.link(sw, "p3", tester, "t3")
    sw.start()
    sw.wait_port("p2", synce="enable", up="enable")
    plug, other = Plug(tester, "t1"), Plug(tester, "t3")
    took = []
    with Watch(tester, watched=("t2",)) as watch:
        for turn in range(4 if lab.sanitized else 12):
            sw.wait_clock(source="p1", quality="PRC", state="Lock")
            if held_back:
                other.set(turn % 2 == 1)
                sw.wait_port("p3", up="enable" if turn % 2 else "disable")
            watch.seen["t2"].clear()
            asked = plug.set(False)
            told = wait_until(lambda: watch.first("t2", lambda frame: frame.event and frame.quality == EEC1),
                              what="the neighbour is told of the loss", interval=0.002)
            took.append(told.when - asked)
            watch.feeding.clear()
            sw.wait_port("p1", up="disable")
            plug.set(True)
            watch.feeding.set()
    print(f"cable pull to event frame, {len(took)} times: median {statistics.median(took) * 1000:.1f} ms, worst "
          f"{max(took) * 1000:.1f} ms; the machine was up to {watch.late * 1000:.1f} ms late")
    assert max(took) < (0.5 if lab.sanitized else 0.1) + 3 * watch.late, took  # of the kernel, nsmd, esmcd


def test_renamed_port_is_another_one(configured):
    """The old name's configuration goes; the lines that the file holds for the new name apply, once."""
    sw = configured
    with open(sw.path("/etc/esmcd.conf"), "a") as file:
        file.write("interface p9\n clock synce priority 33\n clock synce enable\n!\n")
    sw.start()
    sw.wait_port("p2", up="enable", synce="enable", priority="20")

    def rename(old, new):
        sw.ip_batch([f"link set {old} down", f"link set {old} name {new}", f"link set {new} up"])

    rename("p2", "p9")
    sw.wait_port("p9", up="enable", synce="enable", priority="33")
    assert sw.port("p2") == {} and "interface p2" not in sw.show("running-config")
    sw.t2.send(esmc(PRC))
    sw.wait_clock(source="p9")
    rename("p9", "p2")
    sw.wait_port("p2", up="enable", synce="disable", priority="255")
    rename("p2", "elsewhere")  # a name that nobody asked to serve
    wait_until(lambda: sw.port("p2") == {} and sw.port("elsewhere") == {})
    assert "elsewhere" not in status_of(sw)


def assert_p1_works_anew(sw):
    """It starts from defaults; configured again, it is sent on, is heard, and is followed."""
    far = Port(sw.lab.tester, "t1")
    sw.wait_port("p1", up="enable", synce="disable", priority="255", rx="N/A")
    sw.configure("interface p1", "clock synce priority 10", "clock synce enable")
    neighbour = Neighbour(far, PRC)
    wait_until(lambda: neighbour.keep() and sw.clock()["Current selected interface"] == "p1", what="p1 is followed")
    far.drain()
    assert next(far.frames(2.5), None) is not None, "p1 sends nothing"


def test_port_that_goes_and_returns_is_a_new_one(enabled):
    """From another namespace; deleted and made anew with another kernel index and another address."""
    sw, tester = enabled, enabled.lab.tester
    sw.t1.send(esmc(PRC))
    sw.wait_clock(source="p1")
    spare = sw.lab.node("spare", board=None)
    sw.ip("link", "set", "p1", "netns", str(spare.pid))
    sw.wait_clock(source="N/A", state="Holdover")
    wait_until(lambda: sw.port("p1") == {}, what="p1 is gone")
    assert "p1" not in status_of(sw) and "interface p1" not in sw.show("running-config")
    spare.ip("link", "set", "p1", "netns", str(sw.pid))
    sw.wait_port("p1", up="disable")
    sw.link_set("p1", True)
    assert_p1_works_anew(sw)
    sw.ip("link", "delete", "p1")
    wait_until(lambda: sw.port("p1") == {}, what="p1 is gone")
    sw.lab.link(sw, "p1", tester, "t1")
    assert_p1_works_anew(sw)
    # Gone and back before anybody could look: no matter how it is told, the new one is served.
    sw.ip_batch(["link delete p1", "link add p1 index 500 type veth peer name t1x index 501",
                 f"link set t1x netns {tester.pid}", "link set p1 up"])
    tester.ip_batch(["link set t1x name t1", "link set t1 up"])
    assert_p1_works_anew(sw)
    sw.wait_port("p2", up="enable", priority="20", synce="enable")


def set_all(node, letter, state, count=255):
    node.ip_batch([f"link set {letter}{i} {state}" for i in range(1, count + 1)])


def port_lines(sw):
    return [line for line in status_of(sw).splitlines() if line.startswith("port ")]


def hear(ear, seconds, count=None):
    """What each port hears, as (event, quality), until so many have heard something or the time is over."""
    heard = {}
    for frame in ear.frames(seconds):
        heard.setdefault(frame.port, []).append((frame.event, frame.quality))
        if len(heard) == count:
            break
    return heard


def test_255_ports_come_up_at_once_and_a_killed_nsmd_goes_unnoticed(many):
    sw, tester = many, many.lab.tester
    set_all(sw, "d", "down")
    sw.start("d*")
    wait_until(lambda: len(port_lines(sw)) == 255)
    ear, patience = Port(tester, None), 30 if sw.lab.sanitized else 10
    set_all(sw, "d", "up")
    assert len(hear(ear, patience, 255)) == 255
    assert all(": kernel index" in line and ", up, " in line for line in port_lines(sw))
    assert sw.show("clock synce brief").count("\nd") == 255
    # All go at once, and come back.
    set_all(tester, "e", "down")
    wait_until(lambda: ", up, " not in status_of(sw), what="all ports are down")
    sw.wait_port("d255", up="disable")
    ear.drain()
    set_all(tester, "e", "up")
    assert len(hear(ear, patience, 255)) == 255

    # A new nsmd finds every port under its index, and no neighbour hears anything but the usual.
    configured = sw.show("running-config")
    ear.drain()
    for _ in range(3):
        sw.nsmd.kill()
        sw.start_nsmd("--port", "d*", "--dpll", "sim")
        time.sleep(1.5)  # a period, in which every port sends
        sw.nsmd.wait_log("connected")
    heard = hear(ear, 0.2)
    assert len(heard) == 255
    assert {what for frames in heard.values() for what in frames} == {(False, PRC)}
    assert sw.lab.sanitized or min(len(frames) for frames in heard.values()) >= 4
    assert sorted(int(line.split()[1]) for line in port_lines(sw)) == list(range(1, 256))
    assert sw.show("running-config") == configured


def test_lost_messages_about_links_are_made_up_for(many):
    """nsmd stands still while more happens than the kernel keeps for it; then it asks for everything."""
    sw, tester = many, many.lab.tester
    sw.start("d*")
    wait_until(lambda: status_of(sw).count(", up, ") == 255)
    sw.nsmd.send(signal.SIGSTOP)
    try:
        for turn in range(30):  # each change is a message of its own, however busy the machine
            set_all(sw, "d", f"mtu {1300 + turn}")
        set_all(tester, "e", "down", 100)
        sw.ip_batch(["link delete d150", "link set d160 down", "link set d160 name d999", "link set d999 up"])
    finally:
        sw.nsmd.send(signal.SIGCONT)
    sw.nsmd.wait_log("messages about links were lost, asking for all of them")
    expected = {f"d{i}": "down" if i <= 100 else "up" for i in range(1, 256) if i not in (150, 160)} | {"d999": "up"}

    def differences():
        words = [line.replace(":", ",").split(", ") for line in port_lines(sw)]
        return {(each[0].split()[2], each[2]) for each in words} ^ set(expected.items())
    wait_until(lambda: not differences(), what="nsmd knows all links again", interval=0.1)
    for port, up, synce in (("d100", "disable", "enable"), ("d101", "enable", "enable"), ("d999", "enable", "disable")):
        sw.wait_port(port, up=up, synce=synce)
    assert sw.port("d150") == {} and sw.port("d160") == {}
