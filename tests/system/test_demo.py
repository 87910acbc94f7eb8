"""./demo as a user runs it: to its end, interrupted, and left running."""

import pathlib
import re
import subprocess

import pexpect
import pytest
from conftest import programs_of
from lab import ROOT

DEMO = ROOT / "demo"


def demo(environment, *options):
    return subprocess.run([str(DEMO), *options], env=environment, stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, timeout=300)


def test_every_state_is_reached_and_kept_until_it_is_stopped(environment):
    if pathlib.Path("/run/esmc-demo.json").exists():
        pytest.skip("a demonstration was left running on this machine; it is not ours to stop")
    done = demo(environment, "--keep")
    try:
        assert done.returncode == 0, done.stdout + done.stderr
        assert "Every expected state was reached" in done.stdout
        assert "\x1b" not in done.stdout, "plain text where it is no terminal"
        assert re.search(r"^ +C +Holdover +N/A +EEC1/SEC +Holdover", done.stdout, re.M)
        line = next(line.strip() for line in done.stdout.splitlines() if "show clock synce p1" in line)
        shown = subprocess.run(line, shell=True, capture_output=True, text=True)
        assert shown.returncode == 0 and "Clock running state                : Lock" in shown.stdout
    finally:
        assert demo(environment, "--stop").returncode == 0


def test_ctrl_c_ends_it(environment, build):
    session = pexpect.spawn(str(DEMO), env=environment, timeout=60, encoding="utf-8", dimensions=(40, 110))
    session.expect("Cut A-B")
    assert programs_of(build), "the switches run"
    session.sendintr()
    session.expect(pexpect.EOF)
    session.close()
    assert session.exitstatus == 130


def test_demo_that_cannot_succeed_says_so(environment, build):
    """With a daemon that does not run, the demonstration must fail, not pass or hang."""
    (build / "bin/esmcd").write_text("#!/bin/sh\nexit 3\n")
    done = demo(environment)
    assert done.returncode == 1 and "FAILED" in done.stdout
