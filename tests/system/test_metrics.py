"""Metrics of real switches as those read them for whom they are: the parsers of OpenMetrics and of Prometheus."""

import contextlib
import json
import pathlib
import re
import signal
import subprocess
import threading
import time
import urllib.error
import urllib.parse
import urllib.request

import ring
import yaml
from lab import BIN, wait_until
from prometheus_client.openmetrics.parser import text_string_to_metric_families
from test_ring import settle

COUNTERS = {("received", "information"): "information_in", ("received", "event"): "events_in",
            ("sent", "information"): "information_out", ("sent", "event"): "events_out"}


def samples(text):
    """(name, labels) -> value of an OpenMetrics text, which the parser holds to the format's rules."""
    found = {}
    for family in text_string_to_metric_families(text):
        for sample in family.samples:
            key = sample.name, tuple(sorted(sample.labels.items()))
            assert key not in found and family.documentation, key
            found[key] = sample.value
    return found


def promtool(text):
    done = subprocess.run(["promtool", "check", "metrics"], input=text, capture_output=True, text=True)
    assert done.returncode == 0, done.stdout + done.stderr


def value(found, name, **labels):
    return found.get((name, tuple(sorted(labels.items()))))


def assert_agree(switch):
    """The samples say what the JSON object says; both are asked for in one session. Returns the samples."""
    text, line = switch.cli("show clock synce metrics", "show clock synce json").out.rstrip("\n").rsplit("\n", 1)
    found, clock = samples(text + "\n"), json.loads(line)
    for label, word in (("clock_state", clock["running_state"]), ("dpll_state", clock["dpll_state"])):
        states = {labels: v for (name, labels), v in found.items() if name == "esmcd_" + label}
        assert sum(states.values()) == 1 and states[(("state", word),)] == 1
    assert value(found, "esmcd_quality_info", quality=clock["current_quality"]) == 1
    assert value(found, "esmcd_clock_id_info", clock_id=clock["clock_id"]) == 1
    for port in clock["ports"]:
        name = port["name"]
        assert value(found, "esmcd_source", port=name) == port["source"]
        assert value(found, "esmcd_port_up", port=name) == port["link_up"]
        assert value(found, "esmcd_port_hops", port=name) == port["hop_count"]
        for direction in ("received", "sent"):
            assert value(found, "esmcd_port_quality_info", port=name, direction=direction,
                         quality=port[direction + "_quality"]) == 1
        assert value(found, "esmcd_port_address_info", port=name, address=port["address"]) == 1
        assert value(found, "esmcd_port_neighbour_info", port=name, neighbour=port["neighbour"]) == (port["neighbour"] and 1)
        for (direction, kind), field in COUNTERS.items():
            counted = value(found, "esmcd_port_pdus_total", port=name, direction=direction, kind=kind)
            assert counted <= port[field] <= counted + 2, field
        if port["source"]:
            assert value(found, "esmcd_port_usable", port=name, reason="candidate") == 1
            assert -1 < time.time() - value(found, "esmcd_port_information_timestamp_seconds", port=name) < 10
    return found


def test_the_metrics_of_a_ring_are_well_formed_and_say_what_the_shows_say(lab):
    switches = ring.make(lab, more=ring.GUARD)
    settle(switches, ring.WHOLE)
    for switch in switches.values():
        promtool(switch.show("clock synce metrics prometheus"))
        assert_agree(switch)
    b = switches["B"]
    b.configure("interface p2", "clock synce lockout")
    b.cli("clock synce manual-switch p1")
    switches["A"].link_set("p1", False)
    b.wait_clock(state="Holdover", dpll="Holdover")
    found = assert_agree(b)
    assert value(found, "esmcd_port_usable", port="p1", reason="link down") == 0
    assert value(found, "esmcd_port_usable", port="p2", reason="locked out") == 0
    assert value(found, "esmcd_external_command", command="manual") == 0, "it ended with the link"
    assert -1 < time.time() - value(found, "esmcd_change_timestamp_seconds", kind="state") < 30


def test_255_ports_come_in_parts_and_are_well_formed(many):
    many.start("d*")
    wait_until(lambda: many.show("clock synce metrics").count("\nesmcd_port_up{") == 255, what="255 ports")
    text = many.show("clock synce metrics")
    assert len(text) > 10 * 40 * 1024, "more than one part"
    found = samples(text)
    ports = {dict(labels).get("port") for _, labels in found} - {None}
    assert ports == {f"d{n}" for n in range(1, 256)}
    assert len({name for name, labels in found if dict(labels).get("port") == "d255"}) > 20
    promtool(many.show("clock synce metrics prometheus"))


PACKAGED = pathlib.Path(__file__).resolve().parent.parent.parent / "packaging/prometheus"
JOBS = {"node": [f"127.0.0.1:{9101 + n}" for n in range(3)]}
MAP = "127.0.0.1:8466"
# What the JSON object does not tell; and a port's own usability while the switch has no use for any.
NOT_OF_THE_MAP = {"esmcd_build_info", "esmcd_change_timestamp_seconds", "esmcd_port_usable"}


def test_rules_and_dashboard_name_metrics_that_there_are():
    """The documents are held to the programs elsewhere; a rule's test would agree with the rule's own slip."""
    documents = "".join((PACKAGED.parent.parent / "docs" / name).read_text() for name in ("CLI.md", "FLEET.md"))
    there_are = set(re.findall(r"^\| `(esmc(?:d|map)_\w+)`", documents, re.M))
    for file in [*PACKAGED.glob("*.rules.yml"), *PACKAGED.glob("*.json")]:
        named = set(re.findall(r"\besmc(?:d|map)_\w+", file.read_text()))
        assert named and named <= there_are, (file, named - there_are)


class Monitor:
    """Prometheus with what we package for it, but that it asks each second and alarms wait for seconds."""

    def __init__(self, lab, jobs):
        self.node = lab.node("monitor", board=None)
        folder = self.node.path("/run/prometheus")
        folder.mkdir()
        for rules in PACKAGED.glob("*.rules.yml"):
            (folder / rules.name).write_text(re.sub(r"\bfor: \w+", "for: 2s", rules.read_text()))
        config = yaml.safe_load((PACKAGED / "prometheus.yml").read_text())
        config["global"] = {"scrape_interval": "1s", "evaluation_interval": "1s"}
        config["scrape_configs"] = [job for job in config["scrape_configs"] if job["job_name"] in jobs]
        for job in config["scrape_configs"]:
            job["static_configs"] = [{"targets": jobs[job["job_name"]]}]
        (folder / "prometheus.yml").write_text(yaml.safe_dump(config))
        self.node.spawn("prometheus", ["prometheus", "--config.file=/run/prometheus/prometheus.yml",
                                       "--storage.tsdb.path=/run/prometheus/data", "--web.listen-address=127.0.0.1:9090"])

    def ask(self, path, **query):
        """The data of an answer; a query that is refused is an error. None: Prometheus is not there yet."""
        url = f"http://127.0.0.1:9090/api/v1/{path}?" + urllib.parse.urlencode(query)
        try:
            return json.loads(self.node.in_network(lambda: urllib.request.urlopen(url, timeout=20).read()))["data"]
        except OSError as error:
            assert getattr(error, "code", 503) == 503, f"{query}: {error.read()}"
            return None

    def query(self, expression):
        answer = self.ask("query", query=expression)
        return answer and answer["result"]

    def alarms(self):
        return {(a["labels"]["alertname"], a["labels"].get("switch", a["labels"]["instance"])): a["annotations"]["summary"]
                for a in wait_until(lambda: self.ask("alerts"))["alerts"] if a["state"] == "firing"}

    def wait_panels(self, absent):
        """Every panel of the dashboard has data, but those whose expressions hold one of these."""
        panels = json.loads((PACKAGED / "esmcd-dashboard.json").read_text())["panels"]
        wanted = {target["expr"].replace("$__rate_interval", "10s").replace("$switch", ".*").replace("$instance", ".*")
                  for panel in panels for target in panel.get("targets", [])}
        assert len(wanted) > 20

        missing = {e for e in wanted if not any(name in e for name in absent)}

        def all_seen():
            missing.difference_update([e for e in missing if self.query(e)])
            return not missing
        wait_until(all_seen, 60, missing)


def write_files(switches, until):
    """Does what the packaged unit does, each second."""
    unit = (PACKAGED / "esmcd-metrics.service").read_text()
    command = re.search(r"^ExecStart=/bin/sh -c '(.*)'$", unit, re.M)[1]
    while not until.wait(1.0):
        for switch in switches.values():
            switch.run("env", f"PATH={BIN}:/usr/bin:/bin", "FILE=/run/prom/esmcd.prom", "sh", "-c", command)


def test_prometheus_asks_node_exporters_and_alarms_when_the_clock_is_lost(lab):
    switches = ring.make(lab, more=ring.GUARD)
    monitor = Monitor(lab, JOBS)
    for target, switch in zip(JOBS["node"], switches.values()):
        files = switch.path("/run/prom")
        files.mkdir()
        monitor.node.spawn(f"exporter-{switch.name}", [
            "prometheus-node-exporter", "--collector.disable-defaults", "--collector.textfile",
            f"--collector.textfile.directory={files}", f"--web.listen-address={target}"]).expected_status = -signal.SIGTERM
    over = threading.Event()
    writer = threading.Thread(target=write_files, args=(switches, over))
    writer.start()
    try:
        wait_until(lambda: len(monitor.query("esmcd_source == 1") or []) == 2, 60, "B and C have a source, says Prometheus")
        monitor.wait_panels(absent=("esmcmap_", "frequency_offset"))
        kinds = wait_until(lambda: monitor.ask("metadata"))
        assert {name: kinds[name][0]["type"] for name in ("esmcd_port_pdus_total", "esmcd_clock_state")} == {
            "esmcd_port_pdus_total": "counter", "esmcd_clock_state": "gauge"}
        wait_until(lambda: monitor.alarms() == {}, what="no alarm stands")
        for port in ("p1", "p2"):
            switches["A"].link_set(port, False)
        said = wait_until(lambda: monitor.alarms().get(("EsmcdHoldover", JOBS["node"][2])), 60, "C's holdover alarms")
        assert said == f"{JOBS['node'][2]} has no source and holds its last frequency"
    finally:
        over.set()
        writer.join()


def get(node, url):
    """None while nobody answers."""
    with contextlib.suppress(urllib.error.URLError):
        return node.in_network(lambda: urllib.request.urlopen(url, timeout=20).read().decode())


def steady(found):
    """Those samples that are the same when they are asked for a moment later."""
    return {key: v for key, v in found.items() if not key[0].endswith(("_total", "_seconds"))}


def test_prometheus_asks_esmcmap_and_alarms_for_what_only_the_map_knows(lab):
    switches = ring.make(lab, more=ring.GUARD)
    monitor = Monitor(lab, {"esmcmap": [MAP]})
    monitor.node.path("/run/switches").write_text("".join(
        f"switch {name} command {' '.join(switch.enter([f'{BIN}/esmcsh', '-c']))} 'show clock synce json'\n"
        for name, switch in switches.items()))
    monitor.node.spawn("esmcmap", [f"{BIN}/esmcmap", "/run/switches", "--serve", MAP])
    wait_until(lambda: (get(monitor.node, f"http://{MAP}/metrics") or "").count("esmcd_source{") == 6, what="esmcmap has asked all")
    settle(switches, ring.WHOLE)

    differ = set()

    def agree():
        """The map says of the switches what they say: the same families, and all values that last a moment."""
        text, own, heads = get(monitor.node, f"http://{MAP}/metrics"), {}, set()
        for name, switch in switches.items():
            said = switch.show("clock synce metrics")
            heads |= {line for line in said.splitlines() if line.startswith("# ")}
            for (family, labels), v in samples(said).items():
                own[family, tuple(sorted((*labels, ("switch", name))))] = v
        of_map = samples(text)
        differ.clear()
        differ.update(line for line in text.splitlines() if line.startswith("# ") and " esmcmap_" not in line and line not in heads)
        differ.update({key[0] for key in own.keys() - of_map.keys()} - NOT_OF_THE_MAP)
        differ.update(key for key, v in steady(of_map).items() if key[0].startswith("esmcd_") and own.get(key) != v)
        return not differ
    wait_until(agree, what=differ)
    text = get(monitor.node, f"http://{MAP}/metrics")
    found = samples(text)
    assert {f"`{name}`" for name in re.findall(r"# TYPE (esmcmap_\w+)", text)} == set(
        re.findall(r"^\| (`esmcmap_\w+`)", (PACKAGED.parent.parent / "docs/FLEET.md").read_text(), re.M))
    assert [value(found, "esmcmap_hops", switch=name) for name in switches] == [0, 1, 1]
    wait_until(lambda: len(monitor.query("esmcd_source == 1") or []) == 2, 60, "B and C have a source, says Prometheus")
    monitor.wait_panels(absent=("frequency_offset",))
    wait_until(lambda: monitor.alarms() == {}, what="no alarm stands")

    # B and C are made to follow each other: the guard and DNU are kept out of it by a quality that is forced.
    for name in "BC":
        switches[name].configure("no clock synce loop-guard", "interface p1", "clock synce lockout", "interface p2",
                                 "clock synce quality-eth rx prc")
    wait_until(lambda: {("EsmcLoop", "B"), ("EsmcLoop", "C")} <= monitor.alarms().keys(), 60, "the loop alarms")
    for name in "BC":
        switches[name].configure("interface p2", "no clock synce quality-eth rx")
    wait_until(lambda: {("EsmcIsland", "B"), ("EsmcIsland", "C")} <= monitor.alarms().keys(), 60, "they are cut off from A")
    switches["B"].esmcd.kill()
    wait_until(lambda: ("EsmcSwitchSilent", "B") in monitor.alarms(), 60, "B is missed")
    assert value(samples(get(monitor.node, f"http://{MAP}/metrics")), "esmcd_synce_enabled", switch="B") is None
