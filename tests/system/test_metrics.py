"""Metrics of real switches as those read them for whom they are: the parsers of OpenMetrics and of Prometheus."""

import json
import subprocess
import time

import ring
from lab import wait_until
from prometheus_client.openmetrics.parser import text_string_to_metric_families

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


def assert_agree(found, clock):
    """The samples say what the JSON object says."""
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
            assert -1 < time.time() - value(found, "esmcd_port_information_timestamp_seconds", port=name) < 3


def test_the_metrics_of_a_ring_are_well_formed_and_say_what_the_shows_say(lab):
    switches = ring.make(lab, more=ring.GUARD)
    for name, switch in switches.items():
        wait_until(lambda: ring.matches(switch.clock(), ring.WHOLE[name]), 15, f"{name} follows A")
        promtool(switch.show("clock synce metrics prometheus"))
        assert_agree(samples(switch.show("clock synce metrics")), json.loads(switch.show("clock synce json")))
    b = switches["B"]
    b.configure("interface p2", "clock synce lockout")
    b.cli("clock synce manual-switch p1")
    switches["A"].link_set("p1", False)
    b.wait_clock(state="Holdover")
    found = samples(b.show("clock synce metrics"))
    assert_agree(found, json.loads(b.show("clock synce json")))
    assert value(found, "esmcd_port_usable", port="p1", reason="link down") == 0
    assert value(found, "esmcd_port_usable", port="p2", reason="locked out") == 0
    assert value(found, "esmcd_external_command", command="manual") == 0, "it ended with the link"
    assert -1 < time.time() - value(found, "esmcd_change_timestamp_seconds", kind="state") < 5


def test_255_ports_come_in_parts_and_are_well_formed(many):
    many.start("d*")
    wait_until(lambda: many.show("clock synce metrics").count("\nesmcd_port_up{") == 255, 20, "255 ports")
    text = many.show("clock synce metrics")
    assert len(text) > 10 * 40 * 1024, "more than one part"
    found = samples(text)
    ports = {dict(labels).get("port") for _, labels in found} - {None}
    assert ports == {f"d{n}" for n in range(1, 256)}
    assert len({name for name, labels in found if dict(labels).get("port") == "d255"}) > 20
    promtool(many.show("clock synce metrics prometheus"))
