"""Drivers that refuse, fail, are busy, slow or late: what the hardware follows is in the end what the daemon watches,
or it holds over."""

import re
import time

import pytest
from clock_lab import Status, wait_until, wire

EIO, EBUSY, ETIMEDOUT, EREMOTEIO = 5, 16, 110, 121


@pytest.mark.parametrize("seconds", (0, 33))
def test_a_release_that_fails_is_tried_again(box, seconds):
    """Else the hardware goes on with a source that the daemon has given up."""
    one = box().follow()
    for error in (EBUSY,) if seconds else (EIO, EBUSY):
        one.clock.set(set_error=error)
        one.distrust("swp2", "swp0")
        one.clock.wait_refused()
        time.sleep(seconds)  # for which the driver is busy
        one.clock.set(set_error=0)
        one.sees(None)
        one.trust("swp0")
        one.sees("swp0")


def test_a_pin_whose_use_fails_is_tried_again(box):
    one = box().follow()
    one.distrust("swp2")
    for error in (EIO, ETIMEDOUT, EREMOTEIO, EBUSY):
        one.distrust("swp0")
        one.sees(None)
        one.clock.set(set_error=error)
        one.trust("swp0")
        one.clock.wait_refused()
        one.clock.set(set_error=0)
        one.sees("swp0")


def test_a_pin_that_left_one_of_its_devices_is_on_the_other_still(box):
    one = box(pps=1).follow()
    one.clock.tell("present", 2)
    one.distrust("swp0")
    one.sees("swp2")
    one.distrust("swp2")
    one.sees(None)


def test_what_can_not_be_read_for_a_moment_is_not_forgotten(box):
    """A port comes and goes meanwhile, which has everything read again."""
    one = box().follow("--port", "v*")
    with Status(one.sw).listen() as heard:
        for what in ("pin_error", "device_error"):
            one.clock.set(**{what: EIO})
            for change in ("add v1 type veth peer name v2", "del v1"):
                one.sw.ip("link", *change.split())
                wait_until(lambda: (" v1: " in one.status()) == change.startswith("add"), what=change)
            one.clock.set(**{what: 0})
        one.distrust("swp0")
        one.sees("swp2")
        assert {state for state, _ in heard.told()} == {4}
    assert not re.search(r"is no input of device|device \d+ is gone", one.sw.nsmd.text())


@pytest.mark.parametrize("mux", (0, 1))
def test_a_pin_that_can_never_be_read_costs_only_itself(box, mux):
    """The kernel's list ends at it."""
    one = box(mux=mux, pin_error=EIO, bad_pins=1 << mux)
    one.start(swp2=wire.SSU_A)
    one.sees("swp2")
    assert re.search(r"pin \d+ \(swp0\): can't be read: Input/output error", one.status())
    one.clock.set(pin_error=0)
    one.neighbours.say(swp0=wire.PRC)
    one.sees("swp0")
    one.clock.set(pin_error=EIO)
    wait_until(lambda: "clock state: locked" not in one.status(), what="its own source can't be read")
    one.distrust("swp0")
    one.sees("swp2")
    assert len(re.findall(r"can't be read: .*without it", one.sw.nsmd.text())) == 2


@pytest.mark.parametrize("kind", ("auto", "kernel"))
def test_a_driver_that_is_busy_at_the_start_does_not_cost_the_clock(box, kind):
    one = box(pin_error=EBUSY)
    one.start("--dpll", kind, swp0=wire.PRC)
    one.clock.set(pin_error=0)
    one.sees("swp0")


def test_a_driver_that_comes_later_is_waited_for(box):
    """As at boot, where the order is anybody's guess."""
    one = box()
    one.clock.unload()
    one.start_bare("--dpll", "auto")
    one.clock.load()
    one.plug_in()
    one.sw.wait_port("swp0", up="enable")
    one.speak(swp0=wire.PRC)
    one.sw.configure("interface swp0", "clock synce enable")
    one.sees("swp0")


def test_a_clock_that_can_not_be_read_is_not_locked(box):
    one = box().follow()
    one.clock.set(device_error=EIO, no_signal=1)
    wait_until(lambda: "clock state: locked" not in one.status(), what="no longer called locked")
    one.clock.set(device_error=0, no_signal=0)
    one.sees("swp0")


def test_another_hand_on_the_pins_is_undone_and_said_once(box):
    one = box().follow()
    for _ in range(3):
        one.clock.tell("hand", 2)
        wait_until(lambda: one.clock.follows() == "swp2" or one.sw.nsmd.complaints(), what="the hand works")
        one.sees("swp0")
    assert len(one.sw.nsmd.complaints()) == 1, one.sw.nsmd.complaints()


def test_pins_that_come_after_their_ports_are_learnt_without_asking_now_and_then(box):
    one = box()
    one.clock.tell("present", 0)
    one.start("--poll-ms", "0", swp0=wire.PRC)
    one.clock.tell("present", 1)
    one.sees("swp0")


@pytest.mark.parametrize("first", (True, False), ids=("first", "own"))
def test_locked_is_not_reported_for_a_clock_that_was_let_go(box, first):
    """esmcd would take it for a clock that follows something."""
    one = box(first=first, silent=1)
    one.follow()
    with Status(one.sw).listen() as heard:
        one.distrust("swp2", "swp0")
        one.sees(None)
        assert [state for state, _ in heard.told()] == [4, 3], "locked at first, and then holdover"
    assert one.sw.nsmd.text().count("clock: locked, source 0") == 0


def test_a_device_that_goes_in_holdover_is_no_reason_for_odd_lines(box):
    one = box().follow()
    one.distrust("swp2", "swp0")
    one.sees(None)
    for _ in range(3):
        one.clock.tell("present", 0)
        one.clock.tell("present", 1)
    one.clock.unload()
    one.sw.wait_clock(dpll="FreeRun")
    assert "pin 0 is no input" not in one.sw.nsmd.text()


def test_a_pin_that_takes_longer_to_read_than_until_the_next_time_keeps_no_wish_waiting(box):
    one = box().follow()
    one.clock.set(get_delay_ms=1100)
    one.distrust("swp0")
    one.clock.wait(follows="swp2")


def test_a_driver_that_takes_its_time_holds_up_nobody(box):
    one = box(set_delay_ms=3000)
    one.start(swp0=wire.PRC)
    wait_until(lambda: "source 3\n" in one.status() or "has not answered" in one.status())
    began = time.monotonic()
    one.cable("swp2", False)
    one.sw.wait_port("swp2", 1, up="disable")
    assert "clock state" in one.status() and time.monotonic() - began < 1.5
    one.sees("swp0")
