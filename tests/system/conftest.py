"""Fixtures of the system tests: real processes, real sockets, real links, each test in namespaces of its own."""

import pathlib
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent.parent / "tools"))
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

import lab as lab_module  # noqa: E402


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    setattr(item, "report_" + call.when, outcome.get_result())


@pytest.fixture
def lab(request, tmp_path):
    """A lab that is taken down whatever happens. A process that crashed, leaked, or met undefined behaviour
    fails the test even when all its assertions hold; the ends of all logs are printed on failure."""
    made = lab_module.Lab(tmp_path / "logs")
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
def switch(lab):
    """One running switch with two ports, p1 and p2, whose other ends t1 and t2 are in the node `lab.tester`."""
    made = lab.switch("sw")
    lab.tester = lab.node("tester", board=None)
    lab.link(made, "p1", lab.tester, "t1")
    lab.link(made, "p2", lab.tester, "t2")
    return made.start()


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
