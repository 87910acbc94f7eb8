"""Fixtures of the system tests: real processes, real sockets, real links, each test in namespaces of its own."""

import contextlib
import pathlib
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent.parent / "tools"))
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

import lab as lab_module  # noqa: E402
from wire import ENABLE, Port  # noqa: E402


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    setattr(item, "report_" + call.when, outcome.get_result())


@contextlib.contextmanager
def guarded(made, request):
    """A lab that is taken down whatever happens. A process that crashed, leaked, or met undefined behaviour
    fails the test even when all its assertions hold; the ends of all logs are printed on failure."""
    complaints = []
    try:
        yield made
    finally:
        complaints = made.stop()
        called = getattr(request.node, "report_call", None)
        if complaints or (called is not None and called.failed):
            print(made.tails())
    assert not complaints, "\n".join(complaints)


@pytest.fixture
def lab(request, tmp_path):
    with guarded(lab_module.Lab(tmp_path / "logs"), request) as made:
        yield made


@pytest.fixture
def linked(lab):
    """A switch with two ports, p1 and p2, whose other ends t1 and t2 are in the node `lab.tester`. Nothing runs yet."""
    made = lab.switch("sw")
    lab.tester = lab.node("tester", board=None)
    lab.link(made, "p1", lab.tester, "t1")
    lab.link(made, "p2", lab.tester, "t2")
    return made


@pytest.fixture
def switch(linked):
    """The same, running with its defaults."""
    return linked.start()


@pytest.fixture
def enabled(switch):
    """The same with SyncE and SSM on both ports, p1 preferred; the tester's ends are `switch.t1` and `switch.t2`."""
    switch.t1, switch.t2 = Port(switch.lab.tester, "t1"), Port(switch.lab.tester, "t2")
    switch.configure(*ENABLE)
    switch.wait_port("p1", up="enable")
    switch.wait_port("p2", up="enable")
    return switch


@pytest.fixture
def release_only():
    if lab_module.is_sanitized(lab_module.build_dir()):
        pytest.skip("figures of the sanitized build say nothing")


def pytest_collection_modifyitems(items):
    """Tests of figures may be spoilt by whatever else the machine does: those get a second and a third try."""
    for item in items:
        if "release_only" in getattr(item, "fixturenames", ()) or item.get_closest_marker("timing"):
            item.add_marker(pytest.mark.flaky(reruns=2))


def pytest_configure(config):
    config.addinivalue_line("markers", "timing: asserts times that other load on the machine can spoil")
