"""Fixtures of the system tests: real processes, real sockets, real links, each test in namespaces of its own."""

import contextlib
import os
import pathlib
import shutil
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent.parent / "tools"))
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

import lab as lab_module  # noqa: E402
import ring  # noqa: E402
from watch import Late  # noqa: E402
from wire import Port  # noqa: E402


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
    """A copy of the build under test, so that what runs of it is the test's."""
    shutil.copytree(lab_module.build_dir() / "bin", tmp_path / "build/bin")
    shutil.copy(lab_module.build_dir() / "CMakeCache.txt", tmp_path / "build")
    return tmp_path / "build"


@pytest.fixture
def environment(tmp_path, build):
    """That build alone, and a folder for temporary files: nothing of either may be left."""
    scratch = tmp_path / "scratch"
    scratch.mkdir()
    yield dict(os.environ, ESMC_BUILD=str(build), TMPDIR=str(scratch), TERM="xterm")
    lab_module.wait_until(lambda: not programs_of(build), what="the last child has ended too")
    assert list(scratch.iterdir()) == []


@pytest.fixture
def lab(request, tmp_path):
    with guarded(lab_module.Lab(tmp_path / "logs"), request) as made:
        yield made


@pytest.fixture
def sw(lab):
    """A switch without ports. Nothing runs yet."""
    return lab.switch("sw")


@pytest.fixture
def linked(sw):
    """A switch with two ports, p1 and p2, whose other ends t1 and t2 are in `lab.tester`. Nothing runs yet."""
    tester = sw.lab.tester = sw.lab.node("tester", board=None)
    for port, far in (("p1", "t1"), ("p2", "t2")):
        sw.lab.link(sw, port, tester, far)
    sw.t1, sw.t2 = Port(tester, "t1"), Port(tester, "t2")
    return sw


@pytest.fixture
def configured(linked):
    """The same, its file saying SyncE and SSM on both ports, p1 preferred."""
    linked.path("/etc/esmcd.conf").write_text(ring.CONFIG["B"])
    return linked


@pytest.fixture
def switch(linked):
    """The same, running with its defaults."""
    return linked.start()


@pytest.fixture
def enabled(configured):
    """The same, running."""
    configured.start()
    for port in ("p1", "p2"):
        configured.wait_port(port, up="enable", sending="enable")
    return configured


@pytest.fixture
def many(sw):
    """A master with 255 ports d1 to d255, all configured and up; their other ends e1 to e255 are in `lab.tester`.
    Nothing runs yet."""
    ports = "".join(f"interface d{n}\n clock synce priority {n}\n clock synce enable\n!\n" for n in range(1, 256))
    sw.path("/etc/esmcd.conf").write_text(ring.CONFIG["A"].split("!")[0] + "!\n" + ports)
    sw.lab.tester = sw.lab.node("tester", board=None)
    sw.ip_batch([f"link add d{n} index {n + 1} type veth peer name e{n} netns {sw.lab.tester.pid}"
                 for n in range(1, 256)] + [f"link set d{n} up" for n in range(1, 256)])
    sw.lab.tester.ip_batch([f"link set e{n} up" for n in range(1, 256)])
    return sw


@pytest.fixture
def late():
    """late(pid): how late the machine is with that process from now on."""
    with contextlib.ExitStack() as measured:
        yield lambda pid: measured.enter_context(Late(pid))


@pytest.fixture
def release_only():
    if lab_module.is_sanitized(lab_module.build_dir()):
        pytest.skip("figures of the sanitized build say nothing")


@pytest.hookimpl(tryfirst=True)
def pytest_collection_modifyitems(items):
    """Tests of figures may be spoilt by whatever else the machine does: those get a second and a third try, and
    ./check runs them one at a time."""
    for item in items:
        if "release_only" in getattr(item, "fixturenames", ()):
            item.add_marker(pytest.mark.timing)
        if item.get_closest_marker("timing"):
            item.add_marker(pytest.mark.flaky(reruns=2))


def pytest_configure(config):
    config.addinivalue_line("markers", "timing: asserts times that other load on the machine can spoil")
