"""Fixtures of the tests that run inside the guests of tools/check_kernel."""

import pathlib
import sys

import pytest
from known import KNOWN

sys.path.append(str(pathlib.Path(__file__).resolve().parent.parent.parent / "tools"))

import lab as lab_module  # noqa: E402
from clock_lab import Box, Clock  # noqa: E402


@pytest.fixture
def clock():
    made = Clock()
    yield made
    made.unload()


@pytest.fixture
def lab(clock, request, tmp_path):
    """Its processes are gone before the driver goes. A process that ended otherwise than asked is a failure."""
    made = lab_module.Lab(tmp_path / "logs")
    yield made
    complaints = made.stop()
    called = getattr(request.node, "report_call", None)
    if complaints or called is None or called.failed:
        print(made.tails())
    assert not complaints, "\n".join(complaints)


@pytest.fixture
def box(lab, clock):
    """Makes the driver, by its parameters, and a switch on it; in the first namespace unless `first` is false."""
    made = []

    def make(ports=("swp0", "swp2"), first=True, made_ports=4, **parameters):
        clock.load(ports=made_ports, **parameters)
        made.append(Box(lab, clock, ports, first))
        return made[-1]
    yield make
    for one in made:
        one.silence()


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    setattr(item, "report_" + call.when, outcome.get_result())


def pytest_collection_modifyitems(items):
    """Marks the faults that are known and not mended: they must fail, and be taken off the list when they no longer do."""
    for item in items:
        if item.name in KNOWN:
            item.add_marker(pytest.mark.xfail(strict=True, reason=KNOWN[item.name]))
