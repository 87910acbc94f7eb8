"""Everything that is known to have hurt once, all at once and for a minute, from outside: nobody but its doers feels it."""

import contextlib
import multiprocessing
import os
import random
import re
import socket
import struct
import time

import pexpect
import pytest
from esmc_frame import SLOW
from lab import enter_network, wait_until
from test_disks import children, hanging, in_background, private_kib  # noqa: F401 (a fixture)
from test_load import FLOODS, flood
from test_terminals import PASSWORD, PORT, need, spawn, tell
from wire import PRC, Neighbour, assert_on_time

SECONDS = 60
HASH_KIB = 4096  # what is larger is computing one


def connect(address="127.0.0.1"):
    return socket.create_connection((address, int(PORT)), 5, (f"127.0.{random.randrange(256)}.{random.randrange(1, 255)}", 0)
                                    if address == "127.0.0.1" else None)


def guess(answered):
    """Two wrong passwords a connection, from ever other addresses."""
    with connect(random.choice(["127.0.0.1", "::1"])) as client:
        for _ in range(2):
            client.sendall(b"guess%d\r\n" % random.randrange(10**6))
            client.settimeout(random.choice([0.2, 2, 8]))
            if b"Wrong" in client.recv(4096) + client.recv(4096):
                with answered.get_lock():
                    answered.value += 1


def reset():
    """A line for the hash, and gone."""
    with connect() as client:
        client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        client.sendall(b"never mind\r\n" * random.randrange(1, 128))
        time.sleep(random.random() / 10)


def silence():
    with connect() as client:
        client.settimeout(30)
        while client.recv(4096):
            pass


def garbage(paths):
    """Octets of all kinds for every socket of both programs."""
    path = random.choice(paths)
    kind = socket.SOCK_SEQPACKET if "nsmd" in path else socket.SOCK_STREAM
    with socket.socket(socket.AF_UNIX, kind) as client:
        client.settimeout(1)
        client.connect(path)
        for _ in range(random.randrange(1, 5)):
            client.send(os.urandom(random.randrange(1, 3000)))
        client.recv(4096)
    with connect() as client:
        client.sendall(os.urandom(random.randrange(1, 5000)))


def noise(port):
    """Slow-protocol frames with anything in them."""
    while True:
        with contextlib.suppress(OSError):
            port.send(bytes.fromhex("0180c2000002020000000099") + SLOW + os.urandom(random.randrange(1, 120)))
        time.sleep(0.002)


def again_and_again(node, attack, *arguments):
    enter_network(node)
    while True:
        with contextlib.suppress(OSError):
            attack(*arguments)


@contextlib.contextmanager
def running(*attacks):
    """Each is (target, arguments, how many of it)."""
    processes = [multiprocessing.Process(target=target, args=arguments, daemon=True)
                 for target, arguments, count in attacks for _ in range(count)]
    for process in processes:
        process.start()
    try:
        yield
    finally:
        for process in processes:
            process.kill()
        for process in processes:
            process.join()


def log_in_and_work(sw, saved):
    """What an operator does meanwhile; how long it took to get in."""
    began = time.monotonic()
    child = spawn(sw, [need("telnet"), "127.0.0.1", PORT])
    child.timeout = 30
    child.expect("Password: ")
    child.send(PASSWORD + "\r")
    child.expect("sw#")
    took = time.monotonic() - began
    tell(child, "show clock synce brief\r", "p1", "sw#")
    tell(child, "configure terminal\r", r"config\)#")
    tell(child, f"clock synce local-priority {saved}\r", r"config\)#")
    tell(child, "do write\r", r"config\)#")
    assert "%" not in child.before
    tell(child, "end\rexit\r", pexpect.EOF)
    child.close()
    return took


@pytest.mark.timing
def test_all_attacks_at_once(hanging, late):  # noqa: F811
    sw = hanging
    sw.cli("no debug all", "configure terminal", "hostname sw", f"password {PASSWORD}", "log level info")
    source = Neighbour(sw.t2, PRC)
    sw.wait_clock(source="p2")
    paths = [str(sw.path("/run/esmcd.vty")), str(sw.path("/run/nsmd.sock"))]
    answered = multiprocessing.Value("i")
    machine = late(sw.esmcd.pid)
    going, sent = multiprocessing.Event(), multiprocessing.RawValue("L")
    going.set()
    sw.t2.drain()
    frames, memory, computing, logins, held = [], [], [], [], 0
    with running((again_and_again, (sw, guess, answered), 12), (again_and_again, (sw, reset), 4), (again_and_again, (sw, silence), 40),
                 (again_and_again, (sw, garbage, paths), 2), (noise, (sw.t1,), 1),
                 (flood, (sw.t1, FLOODS["alternating"] + FLOODS["invalid"], going, sent), 1)):
        end, work = time.monotonic() + SECONDS, None
        while time.monotonic() < end:
            source.keep()
            frames += sw.t2.frames(0.2)
            with contextlib.suppress(OSError):  # a child that ended meanwhile
                kib = [private_kib(pid) for pid in [sw.esmcd.pid, *children(sw.esmcd.pid)]]
                computing.append(sum(size > HASH_KIB for size in kib))
                memory.append(sum(size for size in kib if size <= HASH_KIB))
            held += 1
            if held % 100 == 50:
                sw.hold()
            elif held % 100 == 0:
                sw.let_go()
            if work is None or not work[0].is_alive():
                logins += work[1] if work else []
                work = in_background(lambda: log_in_and_work(sw, 1 + len(logins)))
        sw.let_go()
    work[0].join()
    logins += work[1]
    print(f"{sent.value / SECONDS:.0f} frames/s; logged in {len(logins)} times, after {max(logins):.1f} s at most; {answered.value} guesses answered; "
          f"private memory {max(memory)} KiB at most")
    assert_on_time(frames, SECONDS - 3, machine.late)
    # One that has answered may not have got to its end when the next one begins.
    assert computing.count(1) > 10 * sum(count > 1 for count in computing), computing
    assert len(logins) >= 3 and max(logins) <= 10
    assert max(memory) < 8192
    assert f"clock synce local-priority {len(logins)}\n" in sw.path("/etc/esmcd.conf").read_text()
    log = sw.path("/var/log/esmcd.log").read_text()
    misses = [int(count) for count in re.findall(r"TCP terminal: (\d+) more wrong passwords", log)]
    assert sum(misses) > 50 and answered.value <= 20 + SECONDS // 2, (misses, answered.value)
    assert len(log.splitlines()) < 1000, "nobody fills the log"
    assert wait_until(lambda: sw.cli("show version", check=False).status == 0, what="a session of the host's own")
    assert sw.nsmd.alive() and sw.clock()["DPLL running state"] == "Lock"
