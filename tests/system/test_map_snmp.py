"""esmcmap asks switches by SNMP, side by side with those asked by command: the same network, and nobody waits for a dead one."""

import json
import os
import pathlib
import shutil
import time

import lossy
import pytest
import ring
from lab import BIN, build_dir, wait_until
from test_ring import settle

pytestmark = pytest.mark.skipif(not (build_dir() / "bin/esmcmap").exists(), reason="esmcmap is not built: its libraries are not there")

SNMPD_CONF = """master agentx
rocommunity public
createUser watcher SHA-256 "a pass phrase" AES "another phrase"
createUser reader MD5 "a pass phrase"
rouser watcher priv
rouser reader auth
"""
V2C = "snmp {at} v2c public"
V3 = 'snmp {at} v3 watcher authPriv SHA-256 "a pass phrase" AES "another phrase"'
# What the MIB does not tell: why there is no source, why a port is not it.
UNTOLD = ("reason",)


class Network:
    """The ring with an SNMP master on every switch, and an operator linked to each: 192.0.2.N of switch N."""

    def __init__(self, lab):
        self.operator = lab.node("operator", board=None)
        self.switches = ring.make(lab)
        self.agents = {}
        for number, (name, switch) in enumerate(self.switches.items(), 1):
            lab.link(self.operator, f"m{number}", switch, "m0")
            self.operator.ip("address", "add", f"192.0.2.{100 + number}", "peer", f"192.0.2.{number}", "dev", f"m{number}")
            switch.ip("address", "add", f"192.0.2.{number}", "peer", f"192.0.2.{100 + number}", "dev", "m0")
            switch.path("/run/snmpd.conf").write_text(SNMPD_CONF)
            self.agents[name] = switch.spawn("snmpd", ["env", "MIBS=", "SNMP_PERSISTENT_DIR=/run/snmp", "snmpd", "-f", "-LOw", "-C", "-c",
                                                       "/run/snmpd.conf", "udp:161"])
        for switch in self.switches.values():
            wait_until(lambda: "registered" in switch.show("snmp").splitlines()[0], what="registered with snmpd")
        settle(self.switches, ring.WHOLE)

    def command(self, name):
        return f"command nsenter -t {self.switches[name].pid} -m -n {BIN}/esmcsh -c 'show clock synce json'"

    def file(self, *more, **how):
        """A file of switches: A="snmp {at} ..."; the others by command."""
        lines = [f"switch {name} " + how.get(name, self.command(name)).format(at=f"192.0.2.{number}")
                 for number, name in enumerate(self.switches, 1)]
        path = self.operator.path(f"/run/switches{len(how)}")
        path.write_text("\n".join([*more, *lines]) + "\n")
        path.chmod(0o600)
        return "/run/" + path.name

    def state(self, file):
        done = self.operator.run(f"{BIN}/esmcmap", file, "--json", check=False)
        assert done.stderr == ""
        return json.loads(done.stdout)


@pytest.fixture
def network(lab):
    return Network(lab)


def told(state):
    """What a state says of the network, without its moment."""
    def plain(node):
        return {key: value for key, value in node.items() if key not in UNTOLD} | {
            "ports": [{key: value for key, value in port.items() if key not in UNTOLD} for port in node["ports"]]}
    return {key: value for key, value in state.items() if key not in ("t", "nodes")} | {"nodes": [plain(node) for node in state["nodes"]]}


def test_a_ring_asked_by_command_and_by_both_versions_is_the_ring_asked_by_commands(network):
    commands, mixed = network.file(), network.file(B=V2C, C=V3)
    wait_until(lambda: len(network.state(commands)["links"]) == 3, what="all have heard each other")
    assert [node["answer"] for node in network.state(commands)["nodes"]] == ["ok"] * 3
    wait_until(lambda: told(network.state(mixed)) == told(network.state(commands)), interval=0.2)
    network.switches["A"].link_set("p1", False)
    settle(network.switches, ring.CUT_A_B)
    wait_until(lambda: told(network.state(mixed)) == told(network.state(commands)), interval=0.2)


def answers(state):
    return {node["id"]: (node["answer"], node.get("error")) for node in state["nodes"] if node["kind"] == "switch"}


class Watch:
    """esmcmap --watch --json beside the switches: its states, as they come."""

    def __init__(self, network, file):
        self.process = network.operator.spawn("esmcmap", [f"{BIN}/esmcmap", file, "--watch", "--json"])

    def last(self):
        lines = [line for line in self.process.text().splitlines(keepends=True) if line.endswith("\n")]
        return json.loads(lines[-1]) if lines else None

    def wait(self, condition, what):
        """The last state, once it is so."""
        def so():
            state = self.last()
            return state if state and condition(state) else None
        return wait_until(so, what=what)


@pytest.mark.parametrize("dead", ["B", "C"])
def test_a_dead_switch_holds_nobody_up(network, release_only, dead, late):
    """Its packets are dropped. What changes at the others shows as soon as before."""
    machine = late(network.switches["A"].esmcd.pid)
    watch = Watch(network, network.file("timeout 2", B=V2C, C=V3))
    watch.wait(lambda state: answers(state) == {name: ("ok", None) for name in "ABC"}, "all answer")
    lost = lossy.drop(network.switches[dead], ["m0"], lossy.program(1))
    watch.wait(lambda state: answers(state)[dead] == ("silent", "no answer in time"), "it is silent")
    other = "C" if dead == "B" else "B"
    for quality in ("eec1", "prc", "eec1"):
        network.switches["A"].configure(f"clock synce local-quality option1 {quality}")
        for name in ("A", other):
            network.switches[name].wait_clock(quality={"eec1": "EEC1/SEC", "prc": "PRC"}[quality])
        began = time.time() * 1000
        state = watch.wait(lambda state: {node["quality"] for node in state["nodes"] if node["id"] != dead} == {quality}, quality)
        assert state["t"] - began < 1300 + machine.late * 1000 and answers(state)[dead][0] == "silent"
    for descriptor in lost:
        os.close(descriptor)
    watch.wait(lambda state: answers(state) == {name: ("ok", None) for name in "ABC"}, "it is back")
    watch.process.stop()


FAULTS = {
    "snmp {at} v2c wrong": ("silent", "no answer in time"),
    "snmp {at}:162 v2c public": ("silent", "no answer in time"),
    "snmp no-such-switch.invalid v2c public": ("silent", "no such host"),
    'snmp {at} v3 nobody authPriv SHA-256 "a pass phrase" AES "another phrase"': ("silent", "it knows no such user"),
    'snmp {at} v3 watcher authPriv SHA-256 "no pass phrase" AES "another phrase"': ("silent", "wrong pass phrase"),
    'snmp {at} v3 watcher authPriv SHA "a pass phrase" AES "another phrase"': ("silent", "wrong pass phrase"),
    "snmp {at} v3 watcher noAuthNoPriv": ("silent", "its agent refuses"),
    'snmp {at} v3 watcher authPriv SHA-256 "a pass phrase" AES "wrong phrase"': ("silent", "wrong privacy pass phrase"),
}


def test_why_a_switch_can_not_be_asked_is_said_in_words(network):
    network.operator.path("/etc/nsswitch.conf").write_text("hosts: files\n")
    network.operator.path("/etc/hosts").write_text("192.0.2.2 switch-b\n")
    for how, (answer, error) in FAULTS.items():
        said = answers(network.state(network.file("timeout 3", B=how)))
        assert said["B"][0] == answer and error in said["B"][1], (how, said)
        assert said["A"] == said["C"] == ("ok", None)
    assert answers(network.state(network.file(B="snmp switch-b v2c public")))["B"] == ("ok", None)
    assert answers(network.state(network.file(B='snmp {at} v3 reader authNoPriv MD5 "a pass phrase"')))["B"] == ("ok", None)
    network.switches["C"].esmcd.stop()
    assert "has not our MIB" in answers(network.state(network.file(C=V3)))["C"][1]


PHRASES = 'authPriv {0} "{0} phrase" {1} "{1} phrase"'
PROTOCOLS = [(auth, priv) for auth in ("MD5", "SHA", "SHA-224", "SHA-256", "SHA-384", "SHA-512") for priv in ("DES", "AES")]
OTHER_PHRASES = "a switch of the same engine identity has other pass phrases"


class Agent:
    """snmpd in a switch, hearing on both loopbacks, on port 1161 of version 6 and on port 2161 of version 4 only."""

    def __init__(self, switch):
        self.switch = switch
        switch.in_network(lambda: [pathlib.Path(f"/proc/sys/net/ipv6/conf/{of}/disable_ipv6").write_text("0") for of in ("all", "lo")])
        for name, text in {"nsswitch.conf": "hosts: files\n", "host.conf": "multi on\n", "hosts": "::1 both\n127.0.0.1 both\n"}.items():
            switch.path(f"/etc/{name}").write_text(text)

    def start(self, engine, *users):
        conf = ["master agentx", "rocommunity public", "rocommunity6 public", f"exactEngineID 0x80001f8804{engine}"]
        for name, phrases in users:
            conf += [f"createUser {name} {phrases.removeprefix('authPriv ')}", f"rouser {name} auth"]
        self.switch.path("/run/snmpd.conf").write_text("\n".join(conf) + "\n")
        self.snmpd = self.switch.spawn("snmpd", ["env", "MIBS=", "SNMP_PERSISTENT_DIR=/run/snmp", "snmpd", "-f", "-LOw", "-C", "-c",
                                                 "/run/snmpd.conf", "udp:161,udp6:161,udp6:1161,udp:127.0.0.1:2161"])
        wait_until(lambda: "registered" in self.switch.show("snmp").splitlines()[0], what="registered with snmpd")

    def file(self, timeout, **entries):
        path = self.switch.path(f"/run/asked{len(entries)}")
        path.write_text(f"timeout {timeout}\n" + "".join(f"switch {name} snmp {how}\n" for name, how in entries.items()))
        path.chmod(0o600)
        return "/run/" + path.name

    def ask(self, timeout=15, **entries):
        done = self.switch.run(f"{BIN}/esmcmap", self.file(timeout, **entries), "--json", check=False)
        assert done.stderr == ""
        return answers(json.loads(done.stdout))


@pytest.fixture
def agent(enabled):
    return Agent(enabled)


def test_an_agent_is_asked_by_every_protocol_and_at_the_address_where_it_hears(agent):
    agent.start("01", *((auth + priv, PHRASES.format(auth, priv)) for auth, priv in PROTOCOLS))
    said = agent.ask(**{auth + priv: f"127.0.0.1 v3 {auth + priv} " + PHRASES.format(auth, priv) for auth, priv in PROTOCOLS})
    assert set(said.values()) == {("ok", None)}, said
    for auth, priv in PROTOCOLS:
        right, user = PHRASES.format(auth, priv), f"127.0.0.1 v3 {auth + priv} "
        assert "wrong pass phrase" in agent.ask(A=user + right.replace(f'"{auth} p', '"no p'))["A"][1], right
        if auth in ("SHA", "SHA-512"):  # each takes the whole time
            assert "wrong privacy pass phrase" in agent.ask(4, A=user + right.replace(f'"{priv} p', '"no p'))["A"][1], right
    for at in ("::1", "[::1]", "[::1]:1161", "both", "both:1161", "both:2161"):
        assert agent.ask(A=f"{at} v2c public", B=f"{at} v3 SHAAES " + PHRASES.format("SHA", "AES")) == {"A": ("ok", None), "B": ("ok", None)}, at
    # One engine with one user: its lesser level is no hindrance, and other phrases are said to be others.
    right, at = PHRASES.format("SHA", "AES"), "127.0.0.1 v3 SHAAES "
    said = agent.ask(A=at + "noAuthNoPriv", B=at + right, C=at + 'authNoPriv SHA "SHA phrase"', D=at + right.replace("AES phrase", "no phrase"))
    assert "refuses" in said.pop("A")[1] and OTHER_PHRASES in said.pop("D")[1] and set(said.values()) == {("ok", None)}


def test_an_agent_that_starts_again_or_becomes_another_one_is_found_again(agent):
    agent.operator = agent.switch  # who watches
    phrases = PHRASES.format("SHA-256", "AES")
    watch = Watch(agent, agent.file(1.5, A=f"127.0.0.1 v3 op {phrases}", B="[::1]:1161 v2c public"))
    for engine, forgets in (("01", False), ("01", False), ("01", True), ("02", False)):
        agent.start(engine, ("op", phrases))
        watch.wait(lambda state: answers(state) == {"A": ("ok", None), "B": ("ok", None)}, f"engine {engine}")
        agent.snmpd.stop()
        watch.wait(lambda state: {how for how, _ in answers(state).values()} == {"silent"}, "it is gone")
        if forgets:
            shutil.rmtree(agent.switch.path("/run/snmp"))
    watch.process.expected_status = 3
    watch.process.stop()
