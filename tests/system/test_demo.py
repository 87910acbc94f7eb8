"""./demo as a user runs it: to its end, interrupted, and left running."""

import contextlib
import os
import pathlib
import re
import shutil
import subprocess

import lab as lab_module
import pexpect
import pytest

DEMO = lab_module.ROOT / "demo"


def programs_of(build):
    """Process ids of all processes that run a program of this build, in whatever namespace."""
    ours = {(found.st_dev, found.st_ino) for found in map(os.stat, (build / "bin").iterdir())}
    found = []
    for entry in pathlib.Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):  # it ended meanwhile
            program = os.stat(entry / "exe")
            holds = f"{build}/bin".encode() in (entry / "cmdline").read_bytes().split(b"\0")
            if holds or (program.st_dev, program.st_ino) in ours:
                found.append(int(entry.name))
    return found


@pytest.fixture
def build(tmp_path):
    """A copy of the build under test, so that what runs of it is the demonstration's."""
    shutil.copytree(lab_module.build_dir() / "bin", tmp_path / "build/bin")
    shutil.copy(lab_module.build_dir() / "CMakeCache.txt", tmp_path / "build")
    return tmp_path / "build"


@pytest.fixture
def environment(tmp_path, build):
    """That build alone, and a folder for temporary files: nothing of either may be left."""
    scratch = tmp_path / "scratch"
    scratch.mkdir()
    yield dict(os.environ, ESMC_BUILD=str(build), TMPDIR=str(scratch), TERM="xterm")
    assert list(scratch.iterdir()) == [] and programs_of(build) == []


def demo(environment, *options):
    return subprocess.run([str(DEMO), *options], env=environment, stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, timeout=60)


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
    session = pexpect.spawn(str(DEMO), env=environment, timeout=20, encoding="utf-8", dimensions=(40, 110))
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
