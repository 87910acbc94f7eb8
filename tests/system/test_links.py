"""Links as they are: pulled, flapping, renamed, moved, made anew, and very many of them at once."""

import contextlib
import select
import signal
import socket
import statistics
import subprocess
import time

import pytest
from lab import wait_until
from watch import Plug, Watch, status_of
from wire import PRC, SLOW, SSU_A, Neighbour, Port, esmc

pytestmark = pytest.mark.timing

ENABLE = ["clock synce global-enable", "clock synce ssm enable", "interface p1", "clock synce priority 10",
          "clock synce enable", "exit", "interface p2", "clock synce priority 20", "clock synce enable", "exit"]

IN_FILE = """clock synce global-enable
clock synce ssm enable
!
interface p1
 clock synce priority 10
 clock synce enable
!
interface p2
 clock synce priority 20
 clock synce enable
!
"""


@pytest.fixture
def enabled(switch):
    switch.configure(*ENABLE)
    return switch


def flaps(switch, port):
    line = next(line for line in status_of(switch).splitlines() if f" {port}: " in line)
    return int(line.split("flaps ")[1].split(",")[0])


def port_events(switch, port):
    """What nsmd delivered about the port, in order."""
    lines = (line for line in switch.nsmd.text().splitlines() if f" ({port}, kernel index " in line)
    return [line.split("): ")[1] for line in lines]


def flap(plug, times):
    for _ in range(times):
        plug.set(False)
        plug.set(True)


@pytest.mark.parametrize("times", [1, 2, 5])
def test_flap_is_delivered_as_down_and_up(enabled, times):
    """Too short for a message of its own. The neighbour keeps silent afterwards, so that only the down event can
    be what makes its quality forgotten."""
    sw, tester = enabled, enabled.lab.tester
    t1 = Port(tester, "t1")
    plug = Plug(tester, "t1")
    t1.send(esmc(PRC))
    sw.wait_clock(source="p1", quality="PRC")
    before = len(port_events(sw, "p1"))
    flap(plug, times)
    sw.wait_clock(2, source="N/A", state="Holdover", quality="EEC1/SEC")
    sw.wait_port("p1", 2, up="enable", rx="N/A", priority="10")
    events = port_events(sw, "p1")[before:]
    assert events and events == ["down", "up"] * (len(events) // 2) and len(events) <= 2 * times, events
    # Anything heard now counts as ever.
    wait_until(lambda: t1_says(t1, SSU_A) and sw.clock()["Current selected interface"] == "p1", 3, "followed again")
    plug.close()


def t1_says(port, quality):
    with contextlib.suppress(OSError):
        port.send(esmc(quality))
    return True


def pulled(watch, plug, port, quality):
    """Seconds from the pull to the event frame with `quality` on `port`."""
    watch.seen[port].clear()
    asked = plug.set(False)

    def told():
        return next((frame for frame in list(watch.seen[port]) if frame.event and frame.quality == quality), None)
    return wait_until(told, 3, "the neighbour is told of the loss", interval=0.002).when - asked


@pytest.mark.parametrize("held_back", [False, True], ids=["at once", "held back by the kernel"])
def test_pulled_cable_is_told_to_the_neighbours(lab, held_back):
    """Measured from the request that takes the link's far end down to the event frame that leaves the other port.
    With equal indexes at both ends the kernel takes the pair for a physical port, whose message it holds back for
    up to a second when a link changed just before: nsmd has to ask."""
    sw = lab.switch("sw", config=IN_FILE)
    tester = lab.tester = lab.node("tester", board=None)
    if held_back:
        subprocess.run(["ip", "link", "add", "name", "p1", "index", "77", "netns", str(sw.pid), "type", "veth", "peer",
                        "name", "t1", "index", "77", "netns", str(tester.pid)], check=True)
        sw.link_set("p1", True)
        tester.link_set("t1", True)
    else:
        lab.link(sw, "p1", tester, "t1")
    lab.link(sw, "p2", tester, "t2")
    lab.link(sw, "p3", tester, "t3")
    sw.start()
    sw.wait_port("p2", synce="enable", up="enable")
    plug, other = Plug(tester, "t1"), Plug(tester, "t3")
    took = []
    with Watch(tester, fed="t1", watched=("t2",)) as watch:
        for turn in range(4 if lab.sanitized else 12):
            sw.wait_clock(8, source="p1", quality="PRC", state="Lock")
            if held_back:
                other.set(turn % 2 == 1)
                wait_until(lambda: sw.port("p3")["Port up"] == ("enable" if turn % 2 else "disable"), 3)
            took.append(pulled(watch, plug, "t2", 11))
            watch.feeding.clear()
            sw.wait_port("p1", up="disable")
            plug.set(True)
            watch.feeding.set()
        late = watch.lateness.worst
    plug.close()
    other.close()
    print(f"cable pull to event frame, {len(took)} times: median {statistics.median(took) * 1000:.1f} ms, worst "
          f"{max(took) * 1000:.1f} ms; the machine was up to {late * 1000:.1f} ms late")
    assert max(took) < (0.5 if lab.sanitized else 0.1 + late), took


def test_renamed_port_is_another_one(lab):
    """The old name's configuration goes; the lines that the file holds for the new name apply, once."""
    sw = lab.switch("sw", config=IN_FILE + "interface p9\n clock synce priority 33\n clock synce enable\n!\n")
    lab.tester = lab.node("tester", board=None)
    lab.link(sw, "p1", lab.tester, "t1")
    lab.link(sw, "p2", lab.tester, "t2")
    sw.start()
    t2 = Port(lab.tester, "t2")
    sw.wait_port("p2", up="enable", synce="enable", priority="20")
    assert "interface p9" in sw.show("running-config")
    neighbour = Neighbour(t2, PRC)
    sw.wait_clock(source="p2")

    def rename(old, new):
        sw.ip_batch([f"link set {old} down", f"link set {old} name {new}", f"link set {new} up"])

    rename("p2", "p9")
    sw.wait_port("p9", 3, up="enable", synce="enable", priority="33")
    assert sw.port("p2") == {} and "interface p2" not in sw.show("running-config")
    wait_until(lambda: neighbour.keep() and sw.clock()["Current selected interface"] == "p9", 3, "p9 is followed")
    t2.drain()
    assert next(t2.frames(2.5)).quality == 15
    rename("p9", "p2")
    sw.wait_port("p2", 3, up="enable", synce="disable", priority="255")
    rename("p2", "p9")
    sw.wait_port("p9", 3, up="enable", synce="disable", priority="255")
    assert sw.port("p2") == {}
    rename("p9", "elsewhere")  # a name that nobody asked to serve
    wait_until(lambda: sw.port("p9") == {} and sw.port("elsewhere") == {}, 3)
    assert "elsewhere" not in status_of(sw)


def assert_port_works(sw, port, far, priority):
    """Configured anew, the port is sent on, is heard, and is followed."""
    sw.wait_port(port, 3, up="enable", synce="disable", priority="255", rx="N/A")
    sw.configure(f"interface {port}", f"clock synce priority {priority}", "clock synce enable")
    neighbour = Neighbour(far, PRC)
    wait_until(lambda: neighbour.keep() and sw.clock()["Current selected interface"] == port, 3, f"{port} is followed")
    far.drain()
    assert next(far.frames(2.5), None) is not None, f"{port} sends nothing"


def test_port_that_visits_another_namespace_comes_back_as_new(enabled):
    sw, tester = enabled, enabled.lab.tester
    far = Port(tester, "t1")
    neighbour = Neighbour(far, PRC)
    sw.wait_clock(source="p1")
    spare = sw.lab.node("spare", board=None)
    for _ in range(2):
        sw.ip("link", "set", "p1", "netns", str(spare.pid))
        sw.wait_clock(3, source="N/A", state="Holdover")
        wait_until(lambda: sw.port("p1") == {}, 3, "p1 is gone")
        assert "p1" not in status_of(sw) and "interface p1" not in sw.show("running-config")
        spare.ip("link", "set", "p1", "netns", str(sw.pid))
        sw.wait_port("p1", 3, up="disable")
        sw.link_set("p1", True)
        assert_port_works(sw, "p1", far, 10)
    assert neighbour
    sw.wait_port("p2", up="enable", priority="20", synce="enable")


def test_port_deleted_and_made_anew(enabled):
    """Another kernel index, another address, the same name: it has its index back and works."""
    sw, tester = enabled, enabled.lab.tester
    for _ in range(3):
        sw.ip("link", "delete", "p1")
        wait_until(lambda: sw.port("p1") == {}, 3, "p1 is gone")
        sw.lab.link(sw, "p1", tester, "t1")
        assert_port_works(sw, "p1", Port(tester, "t1"), 10)
        assert "port 10 p1: kernel index" in status_of(sw)
    # Gone and back before anybody could look: no matter how it is told, the new one is served.
    index = sw.lab._next_index
    sw.lab._next_index += 2
    sw.ip_batch(["link delete p1", f"link add p1 index {index} type veth peer name t1x index {index + 1}",
                 f"link set t1x netns {tester.pid}", "link set p1 up"])
    tester.ip_batch(["link set t1x name t1", "link set t1 up"])
    assert_port_works(sw, "p1", Port(tester, "t1"), 10)


def many_ports(lab, count):
    """`count` veths, all down on the switch's side, all configured in its file."""
    text = "clock synce global-enable\nclock synce ssm enable\nclock synce local-quality option1 prc\nclock synce master-only\n!\n"
    text += "".join(f"interface p{i}\n clock synce enable\n!\n" for i in range(1, count + 1))
    sw = lab.switch("sw", config=text)
    tester = lab.node("tester", board=None)
    sw.ip_batch([f"link add p{i} index {1000 + i} type veth peer name t{i} index {2000 + i} netns {tester.pid}"
                 for i in range(1, count + 1)])
    tester.ip_batch([f"link set t{i} up" for i in range(1, count + 1)])
    return sw, tester


class Ear:
    """One socket over all ports of a node: which of them hear frames, and when first."""

    def __init__(self, node):
        def make():
            made = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x8809))
            made.setsockopt(socket.SOL_SOCKET, 33, 16 << 20)  # SO_RCVBUFFORCE
            return made
        self.socket, self.first = node.in_network(make), {}

    def hear(self, wait):
        """(port, frame) of the next frame; None when none comes in time."""
        while select.select([self.socket], [], [], wait)[0]:
            frame, address = self.socket.recvfrom(2048)
            if address[2] != 4 and frame[12:14] == SLOW:
                return address[0], frame
        return None

    def listen(self, count, deadline):
        end = time.monotonic() + deadline
        while len(self.first) < count and time.monotonic() < end:
            name, _ = self.hear(0.1) or (None, None)
            if name:
                self.first.setdefault(name, time.monotonic())
        return len(self.first)


def all_up(sw, count):
    sw.ip_batch([f"link set p{i} up" for i in range(1, count + 1)])


def test_255_ports_that_come_up_at_once(lab):
    sw, tester = many_ports(lab, 255)
    sw.start()
    wait_until(lambda: sum(line.startswith("port ") for line in status_of(sw).splitlines()) == 255, 10)
    ear = Ear(tester)
    began = time.monotonic()
    all_up(sw, 255)
    asked = time.monotonic() - began
    heard = ear.listen(255, 5 if not lab.sanitized else 30)
    took = max(ear.first.values()) - began if ear.first else 0
    print(f"{heard} ports send {took:.2f} s after the first was set up; setting them all up took {asked:.2f} s")
    assert heard == 255
    lines = [line for line in status_of(sw).splitlines() if line.startswith("port ")]
    assert all(": kernel index" in line and ", up, " in line for line in lines)
    assert sorted(int(line.split()[1]) for line in lines) == list(range(1, 256))
    brief = sw.show("clock synce brief")
    assert all(any(line.split()[:1] == [f"p{i}"] for line in brief.splitlines()) for i in range(1, 256))
    # All go at once, and come back.
    tester.ip_batch([f"link set t{i} down" for i in range(1, 256)])
    wait_until(lambda: ", up, " not in status_of(sw), 5, "all ports are down")
    wait_until(lambda: sw.port("p255")["Port up"] == "disable", 5)
    assert ear.listen(255, 0.1) == 255
    while ear.hear(0.2):
        pass
    ear.first.clear()
    began = time.monotonic()
    tester.ip_batch([f"link set t{i} up" for i in range(1, 256)])
    assert ear.listen(255, 5 if not lab.sanitized else 30) == 255
    print(f"all send again {max(ear.first.values()) - began:.2f} s after the far ends came up")


def test_killed_nsmd_of_255_ports_goes_unnoticed(lab):
    """The new one finds every port under its index, and no neighbour hears anything but the usual."""
    sw, tester = many_ports(lab, 255)
    all_up(sw, 255)
    sw.start()
    ear = Ear(tester)
    assert ear.listen(255, 30) == 255
    while ear.hear(0):
        pass
    before = sorted(line.split(":")[0] for line in status_of(sw).splitlines() if line.startswith("port "))
    configured, heard = sw.show("running-config"), {}
    for _ in range(3):
        sw.nsmd.kill()
        sw.start_nsmd()
        end = time.monotonic() + 1.5
        while time.monotonic() < end:
            name, frame = ear.hear(0.1) or (None, None)
            if name:
                heard.setdefault(name, []).append((frame[14 + 6] & 8, frame[14 + 13]))
        sw.nsmd.wait_log("connected", 5)
    assert len(heard) == 255
    assert {what for frames in heard.values() for what in frames} == {(0, PRC)}
    counts = [len(frames) for frames in heard.values()]
    print(f"{min(counts)} to {max(counts)} frames a port in 4.5 s, nsmd killed three times")
    if not lab.sanitized:
        assert min(counts) >= 4
    assert before == sorted(line.split(":")[0] for line in status_of(sw).splitlines() if line.startswith("port "))
    assert sw.show("running-config") == configured


def test_lost_messages_about_links_are_made_up_for(lab):
    """nsmd stands still while more happens than the kernel keeps for it; then it asks for everything."""
    sw, tester = many_ports(lab, 200)
    all_up(sw, 200)
    sw.start()
    wait_until(lambda: status_of(sw).count(", up, ") == 200, 20)
    sw.nsmd.send(signal.SIGSTOP)
    try:
        for _ in range(12):
            tester.ip_batch([f"link set t{i} {state}" for state in ("down", "up") for i in range(1, 201)])
        tester.ip_batch([f"link set t{i} down" for i in range(1, 101)])
        sw.ip_batch(["link delete p150", "link set p160 down", "link set p160 name p999", "link set p999 up"])
    finally:
        sw.nsmd.send(signal.SIGCONT)
    sw.nsmd.wait_log("messages about links were lost, asking for all of them", 10)

    expected = {f"p{i}": "down" if i <= 100 else "up" for i in range(1, 201) if i not in (150, 160)} | {"p999": "up"}
    seen = {}

    def true_again():
        lines = [line.replace(":", ",").split(", ") for line in status_of(sw).splitlines() if line.startswith("port ")]
        seen.clear()
        seen.update({words[0].split()[2]: words[2] for words in lines})
        return seen == expected
    try:
        wait_until(true_again, 10, "nsmd knows all links again", interval=0.1)
    except AssertionError:
        assert dict(seen.items() - expected.items()) == dict(expected.items() - seen.items())
    sw.wait_port("p100", up="disable", synce="enable")
    sw.wait_port("p101", up="enable", synce="enable")
    sw.wait_port("p999", up="enable", synce="disable")
    assert sw.port("p150") == {} and sw.port("p160") == {}


def test_more_ports_than_indexes(lab):
    """Said for each port that is left out; one that leaves makes room for one of them."""
    sw, _ = many_ports(lab, 258)
    sw.start()
    left_out = "is left out: all 255 interface indexes are in use"
    sw.nsmd.wait_log(left_out, 10, count=3)
    served = [line for line in status_of(sw).splitlines() if line.startswith("port ") and not line.startswith("port 0 ")]
    assert len(served) == 255
    out = [line.split(" port ")[1].split()[0] for line in sw.nsmd.text().splitlines() if left_out in line]
    assert len(out) == len(set(out)) == 3
    assert all(sw.port(name) == {} for name in out)
    sw.ip("link", "delete", served[0].split()[2].rstrip(":"))
    wait_until(lambda: any(sw.port(name) for name in out), 5, "the room is given to one that waits")
    assert sum(bool(sw.port(name)) for name in out) == 1
    assert sw.nsmd.text().count(left_out) == 3, "said once a port"
