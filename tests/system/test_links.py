"""Links as they are: pulled, flapping, renamed, moved, made anew, and very many of them at once."""

import select
import signal
import socket
import statistics
import subprocess
import time

import pytest
import ring
from lab import wait_until
from watch import Plug, Watch, status_of
from wire import EEC1, PRC, SLOW, SSU_A, Neighbour, Port, esmc

pytestmark = pytest.mark.timing

IN_FILE = ring.CONFIG["B"]  # both ports enabled, p1 preferred


@pytest.mark.parametrize("times", [1, 5])
def test_flap_is_delivered_as_down_and_up(enabled, times):
    """Too short for a message of its own. The neighbour keeps silent afterwards, so that only the down event can
    be what makes its quality forgotten."""
    def port_events():
        lines = (line for line in enabled.nsmd.text().splitlines() if " (p1, kernel index " in line)
        return [line.split("): ")[1] for line in lines]

    plug = Plug(enabled.lab.tester, "t1")
    enabled.t1.send(esmc(PRC))
    enabled.wait_clock(source="p1", quality="PRC")
    before = len(port_events())
    for _ in range(times):
        plug.set(False)
        plug.set(True)
    enabled.wait_clock(2, source="N/A", state="Holdover", quality="EEC1/SEC")
    enabled.wait_port("p1", 2, up="enable", rx="N/A", priority="10")
    events = port_events()[before:]
    assert events and events == ["down", "up"] * (len(events) // 2) and len(events) <= 2 * times, events
    plug.close()
    # Anything heard now counts as ever.
    enabled.t1.send(esmc(SSU_A))
    enabled.wait_clock(source="p1", quality="SSU-A")


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
    with Watch(tester, watched=("t2",)) as watch:
        for turn in range(4 if lab.sanitized else 12):
            sw.wait_clock(8, source="p1", quality="PRC", state="Lock")
            if held_back:
                other.set(turn % 2 == 1)
                wait_until(lambda: sw.port("p3")["Port up"] == ("enable" if turn % 2 else "disable"), 3)
            watch.seen["t2"].clear()
            asked = plug.set(False)
            told = wait_until(lambda: next((frame for frame in list(watch.seen["t2"])
                                            if frame.event and frame.quality == EEC1), None),
                              3, "the neighbour is told of the loss", interval=0.002)
            took.append(told.when - asked)
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


def test_renamed_port_is_another_one(linked):
    """The old name's configuration goes; the lines that the file holds for the new name apply, once."""
    sw = linked
    sw.path("/etc/esmcd.conf").write_text(IN_FILE + "interface p9\n clock synce priority 33\n clock synce enable\n!\n")
    sw.start()
    sw.wait_port("p2", up="enable", synce="enable", priority="20")

    def rename(old, new):
        sw.ip_batch([f"link set {old} down", f"link set {old} name {new}", f"link set {new} up"])

    rename("p2", "p9")
    sw.wait_port("p9", 3, up="enable", synce="enable", priority="33")
    assert sw.port("p2") == {} and "interface p2" not in sw.show("running-config")
    Port(sw.lab.tester, "t2").send(esmc(PRC))
    sw.wait_clock(source="p9")
    rename("p9", "p2")
    sw.wait_port("p2", 3, up="enable", synce="disable", priority="255")
    rename("p2", "p9")
    sw.wait_port("p9", 3, up="enable", synce="disable", priority="255")
    rename("p9", "elsewhere")  # a name that nobody asked to serve
    wait_until(lambda: sw.port("p9") == {} and sw.port("elsewhere") == {}, 3)
    assert "elsewhere" not in status_of(sw)


def assert_port_works_anew(sw, port):
    """It starts from defaults; configured again, it is sent on, is heard, and is followed."""
    far = Port(sw.lab.tester, "t" + port[1:])
    sw.wait_port(port, 3, up="enable", synce="disable", priority="255", rx="N/A")
    sw.configure(f"interface {port}", "clock synce priority 10", "clock synce enable")
    neighbour = Neighbour(far, PRC)
    wait_until(lambda: neighbour.keep() and sw.clock()["Current selected interface"] == port, 3, f"{port} is followed")
    far.drain()
    assert next(far.frames(2.5), None) is not None, f"{port} sends nothing"


def test_port_that_visits_another_namespace_comes_back_as_new(enabled):
    sw = enabled
    sw.t1.send(esmc(PRC))
    sw.wait_clock(source="p1")
    spare = sw.lab.node("spare", board=None)
    sw.ip("link", "set", "p1", "netns", str(spare.pid))
    sw.wait_clock(3, source="N/A", state="Holdover")
    wait_until(lambda: sw.port("p1") == {}, 3, "p1 is gone")
    assert "p1" not in status_of(sw) and "interface p1" not in sw.show("running-config")
    spare.ip("link", "set", "p1", "netns", str(sw.pid))
    sw.wait_port("p1", 3, up="disable")
    sw.link_set("p1", True)
    assert_port_works_anew(sw, "p1")
    sw.wait_port("p2", up="enable", priority="20", synce="enable")


def test_port_deleted_and_made_anew(enabled):
    """Another kernel index, another address, the same name: it has its index back and works."""
    sw, tester = enabled, enabled.lab.tester
    sw.ip("link", "delete", "p1")
    wait_until(lambda: sw.port("p1") == {}, 3, "p1 is gone")
    sw.lab.link(sw, "p1", tester, "t1")
    assert_port_works_anew(sw, "p1")
    assert "port 10 p1: kernel index" in status_of(sw)
    # Gone and back before anybody could look: no matter how it is told, the new one is served.
    sw.ip_batch(["link delete p1", "link add p1 index 500 type veth peer name t1x index 501",
                 f"link set t1x netns {tester.pid}", "link set p1 up"])
    tester.ip_batch(["link set t1x name t1", "link set t1 up"])
    assert_port_works_anew(sw, "p1")


def many_ports(lab, count):
    """`count` veths, all down on the switch's side, all configured in its file."""
    sw = lab.switch("sw", config=ring.CONFIG["A"] + "".join(f"interface p{i}\n clock synce enable\n!\n"
                                                            for i in range(3, count + 1)))
    tester = lab.node("tester", board=None)
    sw.ip_batch([f"link add p{i} index {1000 + i} type veth peer name t{i} index {2000 + i} netns {tester.pid}"
                 for i in range(1, count + 1)])
    set_all(tester, "t", count, "up")
    return sw, tester


def set_all(node, letter, count, state):
    node.ip_batch([f"link set {letter}{i} {state}" for i in range(1, count + 1)])


def port_lines(sw):
    return [line for line in status_of(sw).splitlines() if line.startswith("port ")]


class Ear:
    """One socket over all ports of a node: what they hear, as (event, quality)."""

    def __init__(self, node):
        def make():
            made = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x8809))
            made.setsockopt(socket.SOL_SOCKET, 33, 16 << 20)  # SO_RCVBUFFORCE
            return made
        self.socket, self.heard = node.in_network(make), {}

    def listen(self, deadline, count=None):
        """Until so many ports have heard something, or the time is over. How many have."""
        end = time.monotonic() + deadline
        while len(self.heard) != count and time.monotonic() < end:
            if select.select([self.socket], [], [], 0.1)[0]:
                frame, address = self.socket.recvfrom(2048)
                if address[2] != 4 and frame[12:14] == SLOW:
                    self.heard.setdefault(address[0], []).append((frame[14 + 6] & 8, frame[14 + 13]))
        return len(self.heard)

    def forget(self):
        """What has come so far, and what still waits in the socket."""
        while select.select([self.socket], [], [], 0.2)[0]:
            self.socket.recv(2048)
        self.heard.clear()


def test_255_ports_come_up_at_once_and_a_killed_nsmd_goes_unnoticed(lab):
    sw, tester = many_ports(lab, 255)
    sw.start()
    wait_until(lambda: len(port_lines(sw)) == 255, 10)
    ear, patience = Ear(tester), 30 if lab.sanitized else 5
    set_all(sw, "p", 255, "up")
    assert ear.listen(patience, 255) == 255
    assert all(": kernel index" in line and ", up, " in line for line in port_lines(sw))
    assert sorted(int(line.split()[1]) for line in port_lines(sw)) == list(range(1, 256))
    shown = {line.split()[0] for line in sw.show("clock synce brief").splitlines()}
    assert {f"p{i}" for i in range(1, 256)} <= shown
    # All go at once, and come back.
    set_all(tester, "t", 255, "down")
    wait_until(lambda: ", up, " not in status_of(sw), 5, "all ports are down")
    wait_until(lambda: sw.port("p255")["Port up"] == "disable", 5)
    ear.forget()
    set_all(tester, "t", 255, "up")
    assert ear.listen(patience, 255) == 255

    # A new nsmd finds every port under its index, and no neighbour hears anything but the usual.
    before, configured = sorted(line.split(":")[0] for line in port_lines(sw)), sw.show("running-config")
    ear.forget()
    for _ in range(3):
        sw.nsmd.kill()
        sw.start_nsmd()
        ear.listen(1.5)
        sw.nsmd.wait_log("connected", 5)
    assert len(ear.heard) == 255
    assert {what for frames in ear.heard.values() for what in frames} == {(0, PRC)}
    assert lab.sanitized or min(len(frames) for frames in ear.heard.values()) >= 4
    assert before == sorted(line.split(":")[0] for line in port_lines(sw))
    assert sw.show("running-config") == configured


def test_lost_messages_about_links_are_made_up_for(lab):
    """nsmd stands still while more happens than the kernel keeps for it; then it asks for everything."""
    sw, tester = many_ports(lab, 200)
    set_all(sw, "p", 200, "up")
    sw.start()
    wait_until(lambda: status_of(sw).count(", up, ") == 200, 20)
    sw.nsmd.send(signal.SIGSTOP)
    try:
        for _ in range(12):
            set_all(tester, "t", 200, "down")
            set_all(tester, "t", 200, "up")
        set_all(tester, "t", 100, "down")
        sw.ip_batch(["link delete p150", "link set p160 down", "link set p160 name p999", "link set p999 up"])
    finally:
        sw.nsmd.send(signal.SIGCONT)
    sw.nsmd.wait_log("messages about links were lost, asking for all of them", 10)
    expected = {f"p{i}": "down" if i <= 100 else "up" for i in range(1, 201) if i not in (150, 160)} | {"p999": "up"}

    def differences():
        words = [line.replace(":", ",").split(", ") for line in port_lines(sw)]
        return {(each[0].split()[2], each[2]) for each in words} ^ set(expected.items())
    wait_until(lambda: not differences(), 10, "nsmd knows all links again", interval=0.1)
    sw.wait_port("p100", up="disable", synce="enable")
    sw.wait_port("p101", up="enable", synce="enable")
    sw.wait_port("p999", up="enable", synce="disable")
    assert sw.port("p150") == {} and sw.port("p160") == {}
