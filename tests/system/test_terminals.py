"""Terminals as operators use them: every client in a pseudo-terminal of its own, keys typed, screens read."""

import pathlib
import shutil
import subprocess
import threading
import time

import pexpect
import pytest
from lab import BIN, wait_until
from test_wire import BASE, BOTH_PORTS
from wire import Port

PORT = "54697"
PASSWORD = "s3cret"
UP, HOME = "\x1b[A", "\x1b[H"


@pytest.fixture
def sw(lab):
    made = lab.switch("sw")
    made.start_esmcd()
    made.cli("configure terminal", "hostname sw", f"password {PASSWORD}")
    return made


def spawn(sw, argv, rows=24, columns=80):
    command = sw.enter(argv)
    child = pexpect.spawn(command[0], command[1:], timeout=10, dimensions=(rows, columns), encoding="utf-8",
                          codec_errors="replace", env={"PATH": "/usr/bin:/bin:/usr/sbin:/sbin", "TERM": "xterm"})
    child.delaybeforesend = None
    return child


def need(program):
    """Its own path: the links below /etc/alternatives are not there in a node."""
    found = shutil.which(program)
    if not found:
        pytest.skip(f"{program} is not installed")
    return str(pathlib.Path(found).resolve())


def log_in(child):
    child.expect("Password: ")
    child.send(PASSWORD + "\r")
    child.expect("sw#")
    assert PASSWORD not in child.before


def work_at(child):
    """What an operator does in character mode: help, completion, history, a mistake, pages, the way out."""
    child.send("show ?")
    child.expect("running-config")
    child.expect("sw#show ")
    child.send("ver\t\r")
    child.expect("esmcd version")
    child.expect("sw#")
    child.send("cofigure terminal" + HOME + "\x06\x06n\r")
    child.expect(r"sw\(config\)#")
    child.send("hostname Zürich\r")
    child.expect(r"Zürich\(config\)#")
    child.send("no hostnam\x7f\x7f" + "\x15" + "hostname sw\r")
    child.expect(r"sw\(config\)#")
    child.send("end\r")
    child.expect("sw#")
    child.send("show log\r")
    child.expect("--More--|sw#")
    child.send("q")
    child.send("\x03")
    child.expect("sw#")
    child.send(UP + UP)
    child.expect("sw#end")
    child.send("\x03")
    child.expect("sw#")


def leave(child):
    child.send("exit\r")
    child.expect(pexpect.EOF)


def test_esmcsh(sw):
    child = spawn(sw, [f"{BIN}/esmcsh"])
    child.expect("sw#")
    work_at(child)
    child.setwinsize(6, 60)
    child.send("\r")
    child.expect("sw#")
    child.send("show memory\r")
    child.expect("--More--")
    assert child.before.count("\n") <= 7
    child.send("q")
    child.expect("sw#")
    leave(child)
    child.close()
    assert child.exitstatus == 0


def test_telnet(sw):
    child = spawn(sw, [need("telnet"), "127.0.0.1", PORT])
    log_in(child)
    work_at(child)
    child.send("show memory\r")
    child.expect("--More--|sw#")
    child.send("q\x03")
    child.expect("sw#")
    child.send("show version\r")
    child.expect("esmcd version")
    child.expect("sw#")
    leave(child)


def test_plink(sw):
    child = spawn(sw, [need("plink"), "-telnet", "-P", PORT, "127.0.0.1"])
    log_in(child)
    work_at(child)
    leave(child)


def test_nc(sw):
    """A client that knows no telnet sends whole lines and shows the negotiation as it comes."""
    child = spawn(sw, [need("nc"), "127.0.0.1", PORT])
    child.expect("Password: ")
    child.sendline(PASSWORD)
    child.expect("sw#")
    child.sendline("show version")
    child.expect("esmcd version")
    child.expect("sw#")
    child.sendline("exit")
    child.sendeof()  # it does not leave while its keyboard is open
    child.expect(pexpect.EOF)


def test_nc_that_only_sends(sw):
    """printf ... | nc -N: the answers come although the client has said all it has to say."""
    done = subprocess.run(sw.enter([need("nc"), "-N", "127.0.0.1", PORT]), capture_output=True, timeout=20,
                          input=f"{PASSWORD}\nshow version\nshow clock recovery-select\n".encode())
    assert b"esmcd version" in done.stdout and b"clock recovery from syncE" in done.stdout


def test_wrong_passwords(sw):
    for expected in (1, 2):
        child = spawn(sw, [need("telnet"), "127.0.0.1", PORT])
        for _ in range(3):
            child.expect("Password: ")
            child.send("wrong\r")
        start = time.monotonic()
        child.expect(pexpect.EOF)
        assert time.monotonic() - start >= expected - 0.1
    assert sw.show("version").startswith("esmcd version")


def test_no_password_no_terminal(sw):
    sw.cli("configure terminal", "no password")
    done = subprocess.run(sw.enter([need("nc"), "127.0.0.1", PORT]), capture_output=True, timeout=20, input=b"")
    assert done.stdout == b"% No terminal password is configured\r\n"


def test_password_is_never_written_in_clear(sw):
    sw.cli("write")
    text = sw.show("startup-config")
    assert PASSWORD not in text and "password encrypted $y$" in text
    sw.esmcd.stop()
    sw.start_esmcd()
    child = spawn(sw, [need("telnet"), "127.0.0.1", PORT])
    log_in(child)
    leave(child)


def test_loopback_only(sw):
    listing = subprocess.run(sw.enter(["ss", "-Hltn"]), capture_output=True, text=True, check=True).stdout
    addresses = {line.split()[3] for line in listing.splitlines()}
    assert f"127.0.0.1:{PORT}" in addresses
    assert addresses <= {f"127.0.0.1:{PORT}", f"[::1]:{PORT}"}


class Typists:
    """So many interactive sessions, all typing as fast as they are answered."""

    def __init__(self, sw, count, line):
        self.children = [spawn(sw, [f"{BIN}/esmcsh"]) for _ in range(count)]
        for child in self.children:
            child.expect("sw#")
        self.stop, self.answers, self.line = threading.Event(), 0, line
        self.threads = [threading.Thread(target=self.type_on, args=(child,)) for child in self.children]

    def type_on(self, child):
        while not self.stop.is_set():
            child.send(self.line + "\r")
            child.expect("sw#")
            self.answers += 1

    def __enter__(self):
        for thread in self.threads:
            thread.start()
        return self

    def __exit__(self, *_):
        self.stop.set()
        for thread in self.threads:
            thread.join()


def test_frames_leave_on_time_while_32_sessions_type(switch, release_only):
    """Every port's period stays 1000 ms within 20 ms, by the kernel's own time stamps."""
    switch.configure("hostname sw", *BASE, *BOTH_PORTS)
    ports = [Port(switch.lab.tester, name) for name in ("t1", "t2")]
    for port in ports:
        port.expect(5, event=False)
    gaps = []
    with Typists(switch, 32, "show running-config") as typists:
        for port in ports:
            port.drain()
            times = [seen.when for seen in port.frames(6) if not seen.event]
            gaps += [after - before for before, after in zip(times, times[1:])]
    print(f"{typists.answers} answers, {len(gaps)} gaps, {min(gaps) * 1000:.1f} to {max(gaps) * 1000:.1f} ms")
    assert typists.answers > 100
    assert len(gaps) >= 8
    assert all(abs(gap - 1) <= 0.020 for gap in gaps), gaps


def test_thirty_two_sessions_and_no_more(sw):
    """While they type, a script's lines are answered; the next one is told and sent away."""
    with Typists(sw, 31, "show interfaces | count") as typists:
        for _ in range(10):
            assert sw.show("version").startswith("esmcd version")
    children = typists.children

    def last_place():
        """The script's session may still be on its way out."""
        child = spawn(sw, [f"{BIN}/esmcsh"])
        children.append(child)
        return child.expect(["sw#", "Too many sessions"]) == 0

    wait_until(last_place, what="the thirty-second session")
    refused = spawn(sw, [f"{BIN}/esmcsh"])
    refused.expect("Too many sessions")
    for child in children + [refused]:
        child.close(force=True)
    wait_until(lambda: sw.cli("show version", check=False).status == 0, what="a place is free again")


def test_screen_in_tmux(sw, tmp_path):
    """The screen as a real terminal emulator draws it."""
    tmux = [need("tmux"), "-S", str(tmp_path / "tmux"), "-f", "/dev/null"]
    subprocess.run(tmux + ["new-session", "-d", "-x", "60", "-y", "20", "--"] + sw.enter([f"{BIN}/esmcsh"]), check=True)

    def screen():
        return subprocess.run(tmux + ["capture-pane", "-p"], capture_output=True, text=True, check=True).stdout.rstrip()

    try:
        wait_until(lambda: screen().endswith("sw#"), what="prompt")
        subprocess.run(tmux + ["send-keys", "-l", "show clock sync " + "x" * 60], check=True)
        wait_until(lambda: screen().endswith("xxx"), what="a line wider than the window")
        assert screen().count("\n") == 0, "the line stays on its row"
        subprocess.run(tmux + ["send-keys", "C-u"], check=True)
        subprocess.run(tmux + ["send-keys", "-l", "show hist"], check=True)
        subprocess.run(tmux + ["send-keys", "BSpace", "BSpace", "BSpace", "BSpace"], check=True)
        subprocess.run(tmux + ["send-keys", "-l", "version"], check=True)
        subprocess.run(tmux + ["send-keys", "Home", "Right", "Right", "Right", "Right", "Enter"], check=True)
        wait_until(lambda: "esmcd version" in screen(), what="answer")
        assert screen().splitlines()[0] == "sw#show version"
    finally:
        subprocess.run(tmux + ["kill-server"], check=False)
