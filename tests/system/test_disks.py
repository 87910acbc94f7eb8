"""A disk that does not answer: the daemon saves, reads and logs by children, and nobody else waits for it."""

import subprocess
import threading
import time

import pytest
from lab import BIN, wait_until
from wire import PRC, Neighbour, assert_on_time

SECONDS = 4
WRITERS = 2  # of the log file, of standard error

# Calls on the files of these names wait while /run/hang is there, in whatever process.
SHIM = r"""
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>
static void hang(const char* path) {
    if (strstr(path, ".log") || strstr(path, "esmcd.conf"))
        while (access("/run/hang", F_OK) == 0) usleep(5000);
}
static void hang_fd(int fd) {
    char link[64], path[4096];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    ssize_t length = readlink(link, path, sizeof path - 1);
    path[length < 0 ? 0 : length] = 0;
    hang(path);
}
#define NEXT(name, ...) ((__typeof__(&name))dlsym(RTLD_NEXT, #name))(__VA_ARGS__)
ssize_t write(int fd, const void* data, size_t size) { hang_fd(fd); return NEXT(write, fd, data, size); }
int fsync(int fd) { hang_fd(fd); return NEXT(fsync, fd); }
#define MODE va_list args; va_start(args, flags); unsigned mode = va_arg(args, unsigned); va_end(args)
int open(const char* path, int flags, ...) { MODE; hang(path); return NEXT(open, path, flags, mode); }
int open64(const char* path, int flags, ...) { MODE; hang(path); return NEXT(open64, path, flags, mode); }
int openat(int fd, const char* path, int flags, ...) { MODE; hang(path); return NEXT(openat, fd, path, flags, mode); }
int openat64(int fd, const char* path, int flags, ...) { MODE; hang(path); return NEXT(openat64, fd, path, flags, mode); }
"""


def children(pid):
    text = open(f"/proc/{pid}/task/{pid}/children").read()
    return [int(word) for word in text.split()]


def private_kib(pid):
    return sum(int(line.split()[1]) for line in open(f"/proc/{pid}/smaps_rollup") if line.startswith("Private_"))


@pytest.fixture
def hanging(configured, release_only):
    """Running, with a log file and much to log. `hold` and `let_go` are the disk's."""
    sw = configured
    subprocess.run(["cc", "-shared", "-fPIC", "-o", sw.path("/run/hang.so"), "-xc", "-", "-ldl"], input=SHIM,
                   text=True, check=True)
    sw.start_nsmd()
    sw.esmcd = sw.spawn("esmcd", ["env", "LD_PRELOAD=/run/hang.so", f"{BIN}/esmcd"])
    sw.wait_shell()
    sw.hold, sw.let_go = sw.path("/run/hang").touch, lambda: sw.path("/run/hang").unlink(missing_ok=True)
    sw.configure("log file /var/log/esmcd.log", "hostname before", "debug all")
    sw.wait_port("p1", up="enable", sending="enable")
    yield sw
    sw.let_go()


def in_background(function):
    result = []
    thread = threading.Thread(target=lambda: result.append(function()))
    thread.start()
    return thread, result


@pytest.mark.timing
def test_nobody_else_waits_for_the_disk(hanging, late):
    """A save, an opened log file and a show of the file wait for it; PDUs, commands and the log's callers do not."""
    sw, log = hanging, hanging.path("/var/log/esmcd.log")
    source = Neighbour(sw.t1, PRC)
    sw.wait_clock(source="p1")
    sw.hold()
    waiting = [in_background(lambda lines=lines: sw.cli(*lines)) for lines in (
        ["write"], ["show startup-config"], *[["configure terminal", f"log file /var/log/{n}.log"] for n in range(3)])]
    wait_until(lambda: len(children(sw.esmcd.pid)) == WRITERS + 5, what="all work on files is done by children")
    machine = late(sw.esmcd.pid)
    sw.t2.drain()
    frames, slowest, end = [], 0.0, time.monotonic() + SECONDS
    while time.monotonic() < end:
        source.keep()
        frames += sw.t2.frames(0.2)
        asked = time.monotonic()
        sw.show("clock synce")
        slowest = max(slowest, time.monotonic() - asked)
    assert slowest < 0.5 + machine.late
    assert_on_time(frames, SECONDS - 2, machine.late)
    memory = [private_kib(pid) for pid in [sw.esmcd.pid, *children(sw.esmcd.pid)]]
    print(f"a command took {slowest * 1000:.0f} ms at most; private memory, daemon first: {memory} KiB")
    assert sum(memory) < 8192
    again = sw.cli("write", check=False)
    assert again.status == 1 and "is being saved, by a command whose disk has not answered yet" in again.out
    more = sw.cli("configure terminal", "log file /var/log/more.log", check=False)
    assert more.status == 1 and "log files opened before still wait for their disk" in more.out
    before = log.read_text()
    sw.let_go()
    for thread, _ in waiting:
        thread.join()
    assert [reply.status for _, result in waiting for reply in result] == [0] * 5
    assert "hostname before" in sw.path("/etc/esmcd.conf").read_text()
    assert wait_until(lambda: log.read_text() != before, what="the lines that waited are written")
    wait_until(lambda: len(children(sw.esmcd.pid)) == WRITERS, what="the children have ended")
    sw.configure("log file /var/log/last.log", "do write")
    assert sw.esmcd.stop() == 0
    last = "Terminating on signal"
    assert last in sw.path("/var/log/last.log").read_text() and last in sw.esmcd.text(), "what was said last"


def test_the_end_does_not_wait_for_ever(hanging):
    """A save that hangs is given some seconds; what was saved before is there whole at the next start."""
    hanging.cli("write")
    hanging.configure("hostname after")
    hanging.hold()
    thread, _ = in_background(lambda: hanging.cli("write", check=False))
    wait_until(lambda: len(children(hanging.esmcd.pid)) == WRITERS + 1, what="the save has begun")
    began = time.monotonic()
    assert hanging.esmcd.stop() == 0
    assert 2.0 < time.monotonic() - began < 6.0
    thread.join()
    hanging.let_go()
    assert "hostname before" in hanging.path("/etc/esmcd.conf").read_text()
    hanging.start_esmcd()
    hanging.configure("hostname after", "do write")
    assert "hostname after" in hanging.path("/etc/esmcd.conf").read_text()
