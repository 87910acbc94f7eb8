"""Restarts that nobody sees: with `state keep` the next daemon goes on where the one before it was, whether that one
ended or was killed. Anything that changed meanwhile makes it a cold start, said in one line."""

import json
import os
import random
import signal
import time

import pytest
from lab import BIN, parse_show, wait_until
from test_rights import as_user
from test_restarts import LOCKED, registers, start_nsmd, wait_holdover
from watch import Watch, status_of
from wire import DNU, PRC

pytestmark = pytest.mark.timing

ROUNDS = int(os.environ.get("ESMC_RESTARTS") or 6)  # of each kind
TAKEN, COLD = "goes on as the daemon before", "cold start"
SETTINGS = ("state keep\nclock synce ssm extend\nclock synce loop-guard\nclock synce wait-to-restore 300\n")


@pytest.fixture
def kept(configured):
    """Follows t1, which says PRC; t1, t2 and t3 hear it."""
    lab = configured.lab
    lab.link(configured, "p3", lab.tester, "t3")
    config = configured.path("/etc/esmcd.conf")
    config.write_text(SETTINGS + config.read_text() + "interface p3\n clock synce enable\n!\n")
    with Watch(lab.tester, ("t1", "t2", "t3")) as watch:
        start_nsmd(configured)
        configured.start_esmcd()
        configured.wait_clock(source="p1", quality="PRC", state="Lock", dpll="Lock")
        configured.watch = watch
        for frames in watch.seen.values():
            wait_until(lambda: frames and frames[-1].quality in (PRC, DNU))
            frames.clear()
        yield configured


def facts(switch):
    return json.loads(switch.show("clock synce json"))


def longest_gap(frames):
    return max(b.when - a.when for a, b in zip(frames, frames[1:]))


@pytest.mark.parametrize("number, allowed", [(signal.SIGTERM, 1.2), (signal.SIGKILL, 2.0)], ids=["end", "kill"])
def test_restarts_under_traffic_go_unnoticed(kept, number, allowed):
    seed = int(os.environ.get("ESMC_SEED") or time.time_ns() % 1000000)
    print("ESMC_SEED", seed)
    chance, watch = random.Random(seed), kept.watch
    heard = 0
    for turn in range(ROUNDS):
        time.sleep(1.05 + chance.uniform(0, 1))  # a crash is covered once a copy was made
        (kept.esmcd.kill if number == signal.SIGKILL else kept.esmcd.stop)()
        assert registers(kept) == LOCKED
        kept.start_esmcd()
        kept.esmcd.wait_log(TAKEN)
        now = facts(kept)
        assert (now["source"], now["current_quality"]) == ("p1", "prc"), now
        received = int(parse_show(kept.show("clock synce statistics p1"))["Information PDUs received"])
        assert received > heard, "the counters go on"
        heard = received
    time.sleep(1.2)
    assert registers(kept) == LOCKED and "unwatched" not in status_of(kept)
    assert COLD not in kept.esmcd.text() and "holdover" not in kept.nsmd.text()
    assert kept.show("clock synce history").count("the daemon was restarted") == ROUNDS
    gaps = {}
    for port, quality in {"t1": DNU, "t2": PRC, "t3": PRC}.items():
        frames = watch.seen[port]
        assert {(frame.quality, frame.event) for frame in frames} == {(quality, False)}, port
        gaps[port] = longest_gap(frames)
    print(f"{ROUNDS} restarts; longest gaps {gaps}, this machine late by {watch.late:.3f} s")
    assert max(gaps.values()) <= allowed + watch.late


def test_what_changed_meanwhile_or_comes_too_late_is_a_cold_start(kept):
    """Each in one line with its reason; and with a goodbye from then on, once it is configured away."""
    config, state = kept.path("/etc/esmcd.conf"), kept.path("/run/esmcd.state")

    def restart(why, number=signal.SIGTERM, between=lambda: None):
        kept.esmcd.kill() if number == signal.SIGKILL else kept.esmcd.stop()
        between()
        kept.start_esmcd()
        kept.esmcd.wait_log(why)
        assert TAKEN not in kept.esmcd.text()
        kept.wait_clock(source="p1", quality="PRC", state="Lock", dpll="Lock")
        wait_until(lambda: state.exists() and state.stat().st_size > 1000, what="a copy is made")
        assert state.stat().st_mode & 0o777 == 0o600

    text = config.read_text()
    restart("the configuration is another", between=lambda: config.write_text(text + "clock synce non-revertive\n"))
    restart("p3: its link changed", between=lambda: kept.lab.tester.link_set("t3", False) or kept.nsmd.wait_log(
        ": down"))
    restart("it is damaged", signal.SIGKILL, lambda: state.write_bytes(b"x" * 5000))
    restart("others may have written it", signal.SIGKILL, lambda: state.chmod(0o666))
    restart("it is too old", between=lambda: time.sleep(5.2))
    kept.esmcd.stop()
    kept.start_esmcd()
    kept.esmcd.wait_log(TAKEN)
    kept.configure("no state keep")
    wait_until(lambda: not state.exists(), what="nothing is left")
    kept.esmcd.stop()
    wait_holdover(kept)
    # What an operator forgot is said at the next start.
    config.write_text(text.replace("interface p2\n", "clock synce switch-force p1\ninterface p2\n clock synce lockout\n"))
    kept.start_esmcd()
    for line in ("warning : forced switch to p1 is active", "warning : p2 is locked out"):
        kept.esmcd.wait_log(line)
    kept.esmcd.stop()
    # A user who may make no file in /run has one there that is his.
    config.write_text(text)
    for why in ("nobody", TAKEN):
        kept.esmcd = kept.spawn("esmcd", as_user(f"{BIN}/esmcd", "nobody"))
        kept.esmcd.wait_log(why)
        kept.wait_clock(source="p1", quality="PRC", dpll="Lock")
        wait_until(lambda: state.stat().st_size > 1000, what="a copy is made")
        kept.esmcd.stop()
