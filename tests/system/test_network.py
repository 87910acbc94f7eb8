"""tools/network: twelve switches of a chain, and of a ring with the guard, their master lost and found. Larger ones by hand."""

import json
import signal
import subprocess

import pytest
from lab import ROOT

COMMAND = [ROOT / "tools/network", "--switches", "12", "--events", "feed", "--kind"]


@pytest.mark.parametrize("network", [["chain"], ["ring", "--guard"]], ids="-".join)
def test_a_lost_master_is_known_everywhere(environment, tmp_path, release_only, network):
    file = tmp_path / "figures.json"
    done = subprocess.run([*COMMAND, *network, "--json", file], env=environment, capture_output=True, text=True, timeout=240)
    assert done.returncode == 0, done.stdout + done.stderr
    phases = {phase["name"]: phase for phase in json.loads(file.read_text())["runs"][0]["phases"]}
    for phase in phases.values():  # true to the master, as told as shown, no loop, no more PDUs than slow protocols may send
        assert phase["settled"] and not phase["standing_loops"] and not phase["loops"]["seen"], phase
        assert phase["wrong"] == phase["shown_otherwise"] == 0 and phase["busiest_port_pdus_per_s"] <= 10, phase
    for name in ("start", "feed cut", "feed back"):  # in a ring the first PDU of some switch may be what it stays at
        assert phases[name]["switches_that_told"] >= 12 - (name == "start" and "ring" in network), name
    relayed = phases["feed cut"]["quality_ms"] - phases["feed cut"]["first_ms"]
    assert relayed < 50, f"{relayed} ms through eleven switches: each must pass on at once what it hears"


def test_ctrl_c_leaves_nothing(environment):
    with subprocess.Popen([*COMMAND, "chain"], env=environment, stdout=subprocess.PIPE, text=True) as running:
        next(line for line in running.stdout if line.startswith("start"))
        running.send_signal(signal.SIGINT)
        assert running.wait(60) == 130
