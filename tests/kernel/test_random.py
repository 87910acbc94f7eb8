"""Random operations on driver, cables, neighbours and programs, with one rule: what the hardware follows is what esmcd
watches, or it holds over, within 2 s once the driver works again. Half the time goes to a sequence that is always the same,
half to one that is the day's; ESMC_KERNEL_SEED and ESMC_KERNEL_SECONDS choose others."""

import os
import random
import time

import pytest
from clock_lab import wait_until, wire
from test_follow import DEVICES

SECONDS = float(os.environ.get("ESMC_KERNEL_SECONDS", 15))
SEEDS = [int(word) for word in os.environ.get("ESMC_KERNEL_SEED", time.strftime("1 %Y%m%d")).split()]
ERRORS = (0, 5, 16, 110)
WORKS = {"set_error": 0, "pin_error": 0, "device_error": 0, "set_delay_ms": 0}


class Storm:
    def __init__(self, box, seed):
        self.box, self.random, self.done = box, random.Random(seed), []

    def operate(self):
        pick, one = self.random.choice, self.box
        port = pick(one.ports)
        operations = {
            "say": lambda: one.neighbours.say(**{port: pick((wire.PRC, wire.SSU_A, wire.SSU_B, wire.DNU, None))}),
            "cable": lambda: one.cable(port, pick((True, False))),
            "set_error": lambda: one.clock.set(set_error=pick(ERRORS)),
            "pin_error": lambda: one.clock.set(pin_error=pick(ERRORS)),
            "device_error": lambda: one.clock.set(device_error=pick(ERRORS)),
            "set_delay_ms": lambda: one.clock.set(set_delay_ms=pick((0, 30, 300))),
            "silent": lambda: one.clock.set(silent=pick((0, 1))),
            "no_signal": lambda: one.clock.set(no_signal=pick((0, 0, 1, 2, 4, 7))),
            "absent": lambda: one.clock.tell("present", 0),
            "present": lambda: one.clock.tell("present", 1),
            "nsmd": lambda: one.sw.nsmd.kill(),
            "esmcd": lambda: one.sw.esmcd.kill(),
        }
        name = pick(list(operations))
        self.done.append(name)
        operations[name]()

    def calm(self):
        """The driver works again, and both programs run."""
        one = self.box
        if not one.sw.nsmd.alive():
            one.sw.start_nsmd("--dpll", "kernel", "--grace-s", "1")
        if not one.sw.esmcd.alive():
            one.sw.start_esmcd()
        one.clock.set(**WORKS)
        one.clock.tell("present", 1)

    def rule_holds(self):
        followed = self.box.clock.follows()
        return followed == "nothing" or followed == self.box.sw.clock()["Current selected interface"]


@pytest.mark.parametrize("device", ("manual", "automatic", "mux", "pps"))
def test_the_hardware_follows_what_is_watched_whatever_happens(box, device):
    one = box(**DEVICES[device]).follow("--grace-s", "1")
    for seed in SEEDS:
        storm = Storm(one, f"{seed} {device}")
        end = time.monotonic() + SECONDS / len(SEEDS)
        while time.monotonic() < end:
            for _ in range(storm.random.randrange(1, 6)):
                storm.operate()
                time.sleep(storm.random.random() * 0.3)
            storm.calm()
            wait_until(storm.rule_holds, 2, f"the rule holds after {storm.done}, seed {seed}", interval=0.05)
    one.clock.set(silent=0, no_signal=0)
    for port in one.ports:
        one.cable(port, True)
    one.neighbours.say(swp0=wire.PRC, swp2=wire.SSU_A)
    one.sees("swp0")
