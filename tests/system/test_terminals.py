"""Terminals as operators use them: every client in a pseudo-terminal of its own, keys typed, screens read."""

import concurrent.futures
import json
import pathlib
import shutil
import socket
import subprocess
import threading

import pexpect
import pytest
from lab import BIN, wait_until
from wire import assert_on_time

PORT = "54697"
PASSWORD = "s3cret"
UP, HOME = "\x1b[A", "\x1b[H"


@pytest.fixture
def open_for(sw):
    """A daemon with a password, kept as a hash, which a restart reads back."""
    sw.start_esmcd()
    sw.configure("hostname sw", f"password {PASSWORD}")
    sw.cli("write")
    text = sw.show("startup-config")
    assert PASSWORD not in text and "password encrypted $y$" in text
    sw.esmcd.stop()
    sw.start_esmcd()
    return sw


def spawn(sw, argv):
    command = sw.enter(argv)
    child = pexpect.spawn(command[0], command[1:], timeout=10, dimensions=(24, 80), encoding="utf-8",
                          codec_errors="replace", env={"PATH": "/usr/bin:/bin:/usr/sbin:/sbin", "TERM": "xterm"})
    child.delaybeforesend = None
    return child


def need(program):
    """Its own path: the links below /etc/alternatives are not there in a node."""
    return str(pathlib.Path(shutil.which(program)).resolve())


def tell(child, keys, *expected):
    """Types the keys and waits for each of these in turn."""
    child.send(keys)
    for pattern in expected:
        child.expect(pattern)


@pytest.mark.parametrize("client", [["telnet", "127.0.0.1", PORT], ["plink", "-telnet", "-P", PORT, "127.0.0.1"],
                                    [f"{BIN}/esmcsh"]], ids=["telnet", "plink", "esmcsh"])
def test_character_mode(open_for, client):
    """What an operator does: help, completion, history, a mistake, pages, a window made smaller, the way out."""
    child = spawn(open_for, client if len(client) == 1 else [need(client[0]), *client[1:]])
    if len(client) > 1:
        child.expect("Password: ")
        child.send(PASSWORD + "\r")
    child.expect("sw#")
    assert PASSWORD not in child.before
    tell(child, "show ?", "running-config", "sw#show ")
    tell(child, "ver\t\r", "esmcd version", "sw#")
    tell(child, "cofigure terminal" + HOME + "\x06\x06n\r", r"sw\(config\)#")
    tell(child, "show version\r", "esmcd version", r"sw\(config\)#")
    tell(child, "clock synce local-priority 256\r", r"\n {38}\^\r\n  <1-255>", r"% Unknown command\r\nsw\(config\)#")
    tell(child, "hostname Zürich\r", r"Zürich\(config\)#")
    tell(child, "do show version | grep x\r", r"\n {33}\^\r\n  begin", r"% Unknown command\r\nZürich\(config\)#")
    far = "clock synce local-prioritx " + "5" * 60
    tell(child, far + "\r", r"\n  clock synce local-prioritx 5+\.\.\.\r\n {14}\^\r\n", "wait-to-restore", "config")
    tell(child, "no hostnam\x7f\x7f" + "\x15" + "hostname sw\r", r"sw\(config\)#")
    tell(child, "end\r", "sw#")
    tell(child, "show log\r", "--More--|sw#")
    tell(child, "q\x03", "sw#")
    tell(child, UP + UP, "sw#end")
    tell(child, "\x03", "sw#")
    child.setwinsize(6, 60)
    tell(child, "\r", "sw#")
    tell(child, "show memory\r", "--More--")
    assert child.before.count("\n") <= 7
    tell(child, "q", "sw#")
    tell(child, "exit\r", pexpect.EOF)
    child.close()
    assert len(client) > 1 or child.exitstatus == 0


def test_clients_that_know_no_telnet(open_for):
    """They send whole lines, and may have said all they have to say before the answers come (nc -N)."""
    child = spawn(open_for, [need("nc"), "127.0.0.1", PORT])
    child.expect("Password: ")
    tell(child, PASSWORD + "\n", "sw#")
    tell(child, "show version\n", "esmcd version", "sw#")
    tell(child, "show versoin\n", r"\n  show versoin\s+\n {7}\^\s", "% Unknown", "sw#")
    child.sendline("exit")
    child.sendeof()  # it does not leave while its keyboard is open
    child.expect(pexpect.EOF)
    done = subprocess.run(open_for.enter([need("nc"), "-N", "127.0.0.1", PORT]), capture_output=True, timeout=20,
                          input=f"{PASSWORD}\nshow version\nshow clock recovery-select\n".encode())
    assert b"esmcd version" in done.stdout and b"clock recovery from syncE" in done.stdout
    # Nobody from elsewhere can be one.
    listing = open_for.run("ss", "-Hltn", net_only=True).stdout
    addresses = {line.split()[3] for line in listing.splitlines()}
    assert f"127.0.0.1:{PORT}" in addresses
    assert addresses <= {f"127.0.0.1:{PORT}", f"[::1]:{PORT}"}


def test_frames_leave_on_time_while_32_sessions_type(enabled, release_only, late):
    """Every port's period stays 1000 ms within 20 ms, by the kernel's own time stamps."""
    enabled.configure("hostname sw")
    children = [spawn(enabled, [f"{BIN}/esmcsh"]) for _ in range(32)]
    for child in children:
        child.expect("sw#")
    refused = spawn(enabled, ["sh", "-c", f"{BIN}/esmcsh 2>/run/why; echo status $?; cat /run/why"])
    tell(refused, "", r"^status 2\r\n", "^esmcsh: % Too many sessions\r\n", pexpect.EOF)
    reply = enabled.cli("show version", check=False)
    assert (reply.status, reply.out, reply.err) == (2, "", "esmcsh: % Too many sessions\n")
    stop = threading.Event()

    def type_on(child):
        answers = 0
        while not stop.is_set():
            tell(child, "show running-config\r", "sw#")
            answers += 1
        return answers

    with concurrent.futures.ThreadPoolExecutor(len(children)) as pool:
        counts = pool.map(type_on, children)
        machine = late(enabled.esmcd.pid)
        enabled.t1.drain()
        enabled.t2.drain()
        seen = [list(enabled.t1.frames(6)), list(enabled.t2.frames(0.1))]  # which wait in their sockets
        stop.set()
    assert sum(counts) > 100
    for frames in seen:
        assert_on_time(frames, 4, machine.late)
    for child in children + [refused]:
        child.close(force=True)
    wait_until(lambda: enabled.cli("show version", check=False).status == 0, what="a place is free again")


def test_listings_longer_than_a_session_holds(many):
    """Page by page at a terminal and over telnet, whole for a script; who does not read is felt by nobody."""
    many.start("d*")
    wait_until(lambda: many.show("clock synce brief").count("\nd") == 255, what="255 ports are there")
    many.configure("hostname sw", f"password {PASSWORD}")
    names = [f"d{n}" for n in range(1, 256)]
    forms = {form: json.loads(many.show(f"clock synce {form}")) for form in
             ("json", "| json", "brief | json", "statistics | json", "d7 | json", "nowhere | json")}
    assert [sorted(port["name"] for port in value["ports"]) for value in list(forms.values())[:4]] == [sorted(names)] * 4
    assert forms["d7 | json"].keys() == forms["json"]["ports"][0].keys() and forms["nowhere | json"] is None
    deaf = [subprocess.Popen(many.enter([f"{BIN}/esmcsh", "-c", "show clock synce json"]), stdout=subprocess.PIPE)
            for _ in range(8)]
    cut = subprocess.run(many.enter(["sh", "-c", f"{BIN}/esmcsh -c 'show clock synce statistics' | head -1"]),
                         capture_output=True, text=True, timeout=10)
    assert (cut.stdout.split()[0], cut.stderr) == ("Interface", "")
    for argv in ([f"{BIN}/esmcsh"], [need("telnet"), "127.0.0.1", PORT]):
        child = spawn(many, argv)
        if len(argv) > 1:
            tell(child, "", "Password: ")
            child.send(PASSWORD + "\r")
        child.expect("sw#")
        child.send("show clock synce | json\r")
        shown, pages = "", 0
        while child.expect_exact(["--More--", "sw#"]) == 0:
            shown, pages = shown + child.before, pages + 1
            child.send(" ")
        shown = (shown + child.before).replace("\r        \r", "").split("\r\n")
        assert [port["name"] for port in json.loads(shown[1])["ports"]] == [port["name"] for port in forms["json"]["ports"]]
        assert pages >= len(shown[1]) // (24 * 80)
        tell(child, "show clock synce statistics\r", "--More--")
        tell(child, "q", "sw#")
        assert "Interface" not in child.before
        tell(child, "configure terminal\r", r"config\)#")
        tell(child, "do show clock synce brief | j\t\x15do show clock synce json | count\r", "json ", r"\n1?\d\r", r"config\)#")
        child.close(force=True)
    assert [len(json.loads(child.communicate(timeout=10)[0])["ports"]) for child in deaf] == [255] * 8


def memory_holds(pid, word):
    """Looks through all that the process may write, stack and blocks given back included."""
    with open(f"/proc/{pid}/maps") as maps, open(f"/proc/{pid}/mem", "rb", 0) as memory:
        for line in maps:
            places, rights = line.split()[:2]
            if rights.startswith("rw"):
                first, last = (int(place, 16) for place in places.split("-"))
                memory.seek(first)
                if word.encode() in memory.read(last - first):
                    return True
    return False


def test_no_password_stays_in_memory(sw, release_only):
    """Neither from the file, nor typed at a prompt, sent by a script, tried, or begun and left."""
    words = {way: f"{way}-ohgh4Rei" for way in ("file", "script", "typed", "begun", "wrong", "left")}
    sw.path("/etc/esmcd.conf").write_text(f"hostname sw\npassword {words['file']}\n")
    sw.start_esmcd()
    sw.configure(f"password {words['script']}")
    child = spawn(sw, [f"{BIN}/esmcsh"])
    tell(child, "configure terminal\r", r"config\)#")
    tell(child, f"password {words['begun']}" + UP, "configure terminal")
    tell(child, "\x15" + f"password {words['typed']}\r", r"\n.*config\)#")
    tell(child, "show memory\x03", r"config\)#")
    left, wrong, right = (sw.in_network(lambda: socket.create_connection(("127.0.0.1", int(PORT)), 10)) for _ in range(3))
    left.sendall(words["left"].encode())
    wrong.sendall(words["wrong"].encode() + b"\n")
    right.sendall(words["typed"].encode() + b"\n")
    for client, end in ((left, b"Password: "), (wrong, b"Wrong password"), (right, b"sw#")):
        heard = b""
        while end not in heard:
            heard += client.recv(4096) or pytest.fail(f"closed after {heard}")
    wait_until(lambda: memory_holds(sw.esmcd.pid, words["left"]), what="it is there while it may still become one")
    left.close()
    wait_until(lambda: not any(memory_holds(sw.esmcd.pid, word) for word in words.values()),
               what="no password is left")
    child.close(force=True)
