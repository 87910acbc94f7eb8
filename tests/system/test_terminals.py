"""Terminals as operators use them: every client in a pseudo-terminal of its own, keys typed, screens read."""

import pathlib
import shutil
import subprocess
import threading

import pexpect
import pytest
from lab import BIN, wait_until
from wire import gaps

PORT = "54697"
PASSWORD = "s3cret"
UP, HOME = "\x1b[A", "\x1b[H"


@pytest.fixture
def sw(lab):
    made = lab.switch("sw")
    made.start_esmcd()
    made.configure("hostname sw", f"password {PASSWORD}")
    return made


def spawn(sw, argv):
    command = sw.enter(argv)
    child = pexpect.spawn(command[0], command[1:], timeout=10, dimensions=(24, 80), encoding="utf-8",
                          codec_errors="replace", env={"PATH": "/usr/bin:/bin:/usr/sbin:/sbin", "TERM": "xterm"})
    child.delaybeforesend = None
    return child


def need(program):
    """Its own path: the links below /etc/alternatives are not there in a node."""
    found = shutil.which(program)
    if not found:
        pytest.skip(f"{program} is not installed")
    return str(pathlib.Path(found).resolve())


def tell(child, keys, *expected):
    """Types the keys and waits for each of these in turn."""
    child.send(keys)
    for pattern in expected:
        child.expect(pattern)


def log_in(child):
    child.expect("Password: ")
    tell(child, PASSWORD + "\r", "sw#")
    assert PASSWORD not in child.before


def work_at(child):
    """What an operator does in character mode: help, completion, history, a mistake, pages, the way out."""
    tell(child, "show ?", "running-config", "sw#show ")
    tell(child, "ver\t\r", "esmcd version", "sw#")
    tell(child, "cofigure terminal" + HOME + "\x06\x06n\r", r"sw\(config\)#")
    tell(child, "hostname Zürich\r", r"Zürich\(config\)#")
    tell(child, "no hostnam\x7f\x7f" + "\x15" + "hostname sw\r", r"sw\(config\)#")
    tell(child, "end\r", "sw#")
    tell(child, "show log\r", "--More--|sw#")
    tell(child, "q\x03", "sw#")
    tell(child, UP + UP, "sw#end")
    tell(child, "\x03", "sw#")


def leave(child):
    tell(child, "exit\r", pexpect.EOF)
    child.close()


def test_esmcsh(sw):
    child = spawn(sw, [f"{BIN}/esmcsh"])
    child.expect("sw#")
    work_at(child)
    child.setwinsize(6, 60)
    tell(child, "\r", "sw#")
    tell(child, "show memory\r", "--More--")
    assert child.before.count("\n") <= 7
    tell(child, "q", "sw#")
    leave(child)
    assert child.exitstatus == 0


@pytest.mark.parametrize("client", [["telnet", "127.0.0.1", PORT], ["plink", "-telnet", "-P", PORT, "127.0.0.1"]],
                         ids=["telnet", "plink"])
def test_character_mode(sw, client):
    # The password is kept as a hash, which a restart reads back.
    sw.cli("write")
    text = sw.show("startup-config")
    assert PASSWORD not in text and "password encrypted $y$" in text
    sw.esmcd.stop()
    sw.start_esmcd()
    child = spawn(sw, [need(client[0]), *client[1:]])
    log_in(child)
    work_at(child)
    leave(child)


def test_nc(sw):
    """A client that knows no telnet sends whole lines and shows the negotiation as it comes."""
    child = spawn(sw, [need("nc"), "127.0.0.1", PORT])
    child.expect("Password: ")
    tell(child, PASSWORD + "\n", "sw#")
    tell(child, "show version\n", "esmcd version", "sw#")
    child.sendline("exit")
    child.sendeof()  # it does not leave while its keyboard is open
    child.expect(pexpect.EOF)


def test_nc_that_only_sends(sw):
    """printf ... | nc -N: the answers come although the client has said all it has to say."""
    done = subprocess.run(sw.enter([need("nc"), "-N", "127.0.0.1", PORT]), capture_output=True, timeout=20,
                          input=f"{PASSWORD}\nshow version\nshow clock recovery-select\n".encode())
    assert b"esmcd version" in done.stdout and b"clock recovery from syncE" in done.stdout


def test_loopback_only(sw):
    listing = subprocess.run(sw.enter(["ss", "-Hltn"]), capture_output=True, text=True, check=True).stdout
    addresses = {line.split()[3] for line in listing.splitlines()}
    assert f"127.0.0.1:{PORT}" in addresses
    assert addresses <= {f"127.0.0.1:{PORT}", f"[::1]:{PORT}"}


def test_frames_leave_on_time_while_32_sessions_type(enabled, release_only):
    """Every port's period stays 1000 ms within 20 ms, by the kernel's own time stamps."""
    enabled.configure("hostname sw")
    children = [spawn(enabled, [f"{BIN}/esmcsh"]) for _ in range(32)]
    for child in children:
        child.expect("sw#")
    refused = spawn(enabled, [f"{BIN}/esmcsh"])
    refused.expect("Too many sessions")
    stop, answers = threading.Event(), [0] * len(children)

    def type_on(number):
        while not stop.is_set():
            tell(children[number], "show running-config\r", "sw#")
            answers[number] += 1

    threads = [threading.Thread(target=type_on, args=(number,)) for number in range(len(children))]
    for thread in threads:
        thread.start()
    seen = []
    try:
        for port in (enabled.t1, enabled.t2):
            port.drain()
            seen += gaps([frame for frame in port.frames(6) if not frame.event])
    finally:
        stop.set()
        for thread in threads:
            thread.join()
    print(f"{sum(answers)} answers, {len(seen)} gaps, {min(seen) * 1000:.1f} to {max(seen) * 1000:.1f} ms")
    assert sum(answers) > 100
    assert len(seen) >= 8
    assert all(abs(gap - 1) <= 0.020 for gap in seen), seen
    for child in children + [refused]:
        child.close(force=True)
    wait_until(lambda: enabled.cli("show version", check=False).status == 0, what="a place is free again")


def test_screen_in_tmux(sw, tmp_path):
    """The screen as a real terminal emulator draws it."""
    tmux = [need("tmux"), "-S", str(tmp_path / "tmux"), "-f", "/dev/null"]
    subprocess.run(tmux + ["new-session", "-d", "-x", "60", "-y", "20", "--"] + sw.enter([f"{BIN}/esmcsh"]), check=True)

    def screen():
        return subprocess.run(tmux + ["capture-pane", "-p"], capture_output=True, text=True, check=True).stdout.rstrip()

    def keys(*words):
        subprocess.run(tmux + ["send-keys", *words], check=True)

    try:
        wait_until(lambda: screen().endswith("sw#"), what="prompt")
        keys("-l", "show clock sync " + "x" * 60)
        wait_until(lambda: screen().endswith("xxx"), what="a line wider than the window")
        assert screen().count("\n") == 0, "the line stays on its row"
        keys("C-u")
        keys("-l", "show hist")
        keys("BSpace", "BSpace", "BSpace", "BSpace")
        keys("-l", "version")
        keys("Home", "Right", "Right", "Right", "Right", "Enter")
        wait_until(lambda: "esmcd version" in screen(), what="answer")
        assert screen().splitlines()[0] == "sw#show version"
    finally:
        subprocess.run(tmux + ["kill-server"], check=False)
