"""./demo as a user runs it: to its end, interrupted, and left running."""

import os
import pathlib
import re
import subprocess
import time

import lab as lab_module
import pexpect
import pytest

DEMO = lab_module.ROOT / "demo"


def programs_of(build):
    """Process ids of all processes that run a program of this build, in whatever namespace."""
    ours = {(found.st_dev, found.st_ino) for found in map(os.stat, (pathlib.Path(build) / "bin").iterdir())}
    found = set()
    for entry in pathlib.Path("/proc").iterdir():
        if entry.name.isdigit():
            try:
                program = os.stat(entry / "exe")
                words = (entry / "cmdline").read_bytes().split(b"\0")
            except OSError:
                continue
            holder = b"holder" in words and str(build).encode() + b"/bin" in words
            if holder or (program.st_dev, program.st_ino) in ours:
                found.add(int(entry.name))
    return found


@pytest.fixture
def environment(tmp_path):
    """Only the build under test, and a folder for temporary files: nothing of either may be left."""
    scratch, build = tmp_path / "scratch", lab_module.build_dir()
    scratch.mkdir()
    before = programs_of(build)
    yield dict(os.environ, ESMC_BUILD=str(build), TMPDIR=str(scratch), TERM="xterm")
    assert list(scratch.iterdir()) == []
    assert programs_of(build) <= before


def demo(environment, *options):
    return subprocess.run([str(DEMO), *options], env=environment, stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, timeout=120)


def test_demo_reaches_every_state(environment):
    began = time.monotonic()
    done = demo(environment)
    assert done.returncode == 0, done.stdout + done.stderr
    assert time.monotonic() - began < 60
    assert "Every expected state was reached" in done.stdout
    assert "\x1b" not in done.stdout, "plain text where it is no terminal"
    assert re.search(r"^ +C +Holdover +N/A +EEC1/SEC +Holdover", done.stdout, re.M)


def test_ctrl_c_ends_it(environment):
    before = programs_of(environment["ESMC_BUILD"])
    session = pexpect.spawn(str(DEMO), env=environment, timeout=20, encoding="utf-8", dimensions=(40, 110))
    session.expect("Cut A-B")
    assert programs_of(environment["ESMC_BUILD"]) - before, "the switches run"
    session.sendintr()
    session.expect(pexpect.EOF)
    session.close()
    assert session.exitstatus == 130


def test_keep_and_stop(environment):
    if pathlib.Path("/run/esmc-demo.json").exists():
        pytest.skip("a demonstration was left running on this machine; it is not ours to stop")
    done = demo(environment, "--keep")
    try:
        assert done.returncode == 0, done.stdout + done.stderr
        line = next(line.strip() for line in done.stdout.splitlines() if "show clock synce p1" in line)
        shown = subprocess.run(line, shell=True, capture_output=True, text=True)
        assert shown.returncode == 0 and "Clock running state                : Lock" in shown.stdout
    finally:
        stopped = demo(environment, "--stop")
    assert stopped.returncode == 0


def test_demo_that_cannot_succeed_says_so(environment, tmp_path):
    """With a daemon that does not run, the demonstration must fail, not pass or hang."""
    broken = tmp_path / "broken"
    (broken / "bin").mkdir(parents=True)
    for program in ("esmcd", "nsmd", "esmcsh"):
        target = broken / "bin" / program
        target.write_text("#!/bin/sh\nexit 3\n")
        target.chmod(0o755)
    done = demo(dict(environment, ESMC_BUILD=str(broken)))
    assert done.returncode == 1
    assert "FAILED" in done.stdout
