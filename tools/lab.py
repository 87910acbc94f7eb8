"""Switches made of real processes: what the system tests and ./demo share. Standard library only.

A Node is a network namespace and a mount namespace of its own, held open by one sleeping process. Its /run, /tmp,
/var/agentx, /var/log and /etc are private, so that the fixed paths of the programs (sockets, pid file, board file,
configuration file) never meet those of another node or of the host. A Switch is a Node in which nsmd and esmcd
run. Links are veth pairs between nodes. A Lab owns all of them and takes everything down, by process id.

Nothing here waits for a fixed time: wait_until polls a condition up to a deadline.
"""

import contextlib
import ctypes
import fcntl
import os
import pathlib
import shutil
import signal
import socket
import struct
import subprocess
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
BIN = "/run/esmc-bin"  # where a node sees the build's programs, wherever the tree itself lies

PATIENCE = 20.0  # seconds until a condition that nobody times is given up: a machine may be busy with something else

BOARD = "board_type 12\nproduct_series 1\nsynce_support 1\n"

# Run in the new namespaces: private mounts, then the paths that the programs expect.
HOLDER = r"""
set -e
mount -t tmpfs -o mode=755 tmpfs /run
mkdir /run/esmc-bin /run/etc /run/lock /run/agentx /run/log
mount --bind "$1" /run/esmc-bin
cd /etc
fate=$2; set --
for entry in passwd group hosts nsswitch.conf localtime ld.so.cache ld.so.conf ld.so.conf.d services protocols snmp; do
    [ ! -e "$entry" ] || set -- "$@" "$entry"
done
cp -aL "$@" /run/etc/
cd /
mount --bind /run/etc /etc
if [ -d /var/agentx ] || mkdir -p /var/agentx 2>/dev/null; then mount --bind /run/agentx /var/agentx; fi
mount -t tmpfs -o mode=1777 tmpfs /tmp
mount --bind /run/log /var/log
ip link set lo up
for family in all default; do
    switch=/proc/sys/net/ipv6/conf/$family/disable_ipv6
    [ ! -w $switch ] || echo 1 > $switch
done
echo ready
if [ $fate = keep ]; then exec sleep infinity; else exec cat > /dev/null; fi
"""


class Timeout(AssertionError):
    """A condition did not come true before its deadline."""


IN_GUEST = "ESMC_GUEST_name" in os.environ  # of tools/check_kernel: each question costs an emulated machine more
POLL = 0.03 if IN_GUEST else 0.01  # seconds


def wait_until(condition, deadline=PATIENCE, what="", interval=POLL):
    """Polls `condition` until it returns something true, which is returned. Timeout after `deadline` seconds."""
    end = time.monotonic() + deadline
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() >= end:
            raise Timeout(f"not within {deadline:g} s: {what or getattr(condition, '__doc__', None) or condition}")
        time.sleep(interval)


def build_dir():
    """The build folder under test: environment ESMC_BUILD, relative to the tree, or build/release."""
    return (ROOT / os.environ.get("ESMC_BUILD", "build/release")).resolve()


def is_sanitized(build):
    cache = build / "CMakeCache.txt"
    return cache.exists() and "ESMC_SANITIZE:BOOL=ON" in cache.read_text()


def parse_show(text):
    """The "label : value" lines of a show block as a dictionary."""
    values = {}
    for line in text.splitlines():
        label, separator, value = line.partition(" : ") if " : " in line else line.partition(": ")
        if separator:
            values[label.strip()] = value.strip()
    return values


class Process:
    """A program that runs in a node. Its output goes to a log file that the lab prints when a test fails."""

    def __init__(self, name, argv, log, detached=False):
        self.name, self.argv, self.log = name, argv, pathlib.Path(log)
        self.expected_status = None  # set by whoever kills it on purpose
        prefix = [] if detached else ["setpriv", "--pdeathsig", "KILL"]
        with open(self.log, "ab") as output:
            self.start_offset = output.tell()
            self.popen = subprocess.Popen(prefix + argv, stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                                          start_new_session=detached)
        self.pid = self.popen.pid

    def alive(self):
        return self.popen.poll() is None

    def text(self):
        """What this process (not its predecessors in the same file) has written so far."""
        with open(self.log, "rb") as log:
            log.seek(self.start_offset)
            return log.read().decode("utf-8", "replace")

    def wait_log(self, pattern, deadline=PATIENCE, count=1):
        return wait_until(lambda: self.text().count(pattern) >= count, deadline,
                          f"{self.name} logs {pattern!r} {count} time(s)")

    def complaints(self):
        """The warnings and errors among what it wrote."""
        return [line for line in self.text().splitlines() if " warning " in line or " error " in line]

    def send(self, number):
        self.popen.send_signal(number)

    def wait(self, deadline=PATIENCE):
        """Exit status, negative for the signal that ended it."""
        try:
            return self.popen.wait(deadline)
        except subprocess.TimeoutExpired:
            raise Timeout(f"{self.name} (pid {self.pid}) has not ended within {deadline:g} s") from None

    def stop(self, number=signal.SIGTERM, deadline=PATIENCE):
        if self.alive():
            self.send(number)
        return self.wait(deadline)

    def kill(self):
        self.expected_status = -signal.SIGKILL
        return self.stop(signal.SIGKILL)


class Reply:
    """What one run of esmcsh gave."""

    def __init__(self, completed):
        self.status, self.out, self.err = completed.returncode, completed.stdout, completed.stderr

    def __repr__(self):
        return f"status {self.status}, stdout {self.out!r}, stderr {self.err!r}"


_libc = ctypes.CDLL(None, use_errno=True)
_CLONE_NEWNET = 0x40000000
_SIOCGIFFLAGS, _SIOCSIFFLAGS, _IFF_UP = 0x8913, 0x8914, 1


def enter_network(node):
    """Takes the calling thread into the node's network namespace."""
    descriptor = os.open(f"/proc/{node.pid}/ns/net", os.O_RDONLY)
    try:
        if _libc.setns(descriptor, _CLONE_NEWNET) != 0:
            raise OSError(ctypes.get_errno(), "setns")
    finally:
        os.close(descriptor)


class Node:
    """A network and mount namespace, with no program of ours in it. Without `network` only the latter: it has the
    network of whoever made it."""

    def __init__(self, lab, name, board=BOARD, config=None, network=True):
        self.lab, self.name, self.processes = lab, name, []
        keep = "keep" if lab.keep else "end"
        prefix = [] if lab.keep else ["setpriv", "--pdeathsig", "KILL"]
        self.holder = subprocess.Popen(
            prefix + ["unshare", "--mount", *(["--net"] if network else []), "--propagation", "private", "sh", "-c", HOLDER,
                      "holder", str(lab.build / "bin"), keep],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=lab.keep)
        first = self.holder.stdout.readline()
        if first != b"ready\n":
            rest = self.holder.communicate()[0]
            raise RuntimeError(f"can't make the namespaces of {name}: {(first + rest).decode()}")
        self.pid = self.holder.pid
        if board is not None:
            self.path("/tmp/quarn_board_info").write_text(board)
        if config is not None:
            self.path("/etc/esmcd.conf").write_text(config)

    def path(self, inside):
        """A path of this node, as seen from outside. Use /run, not /var/run: links are followed outside."""
        return pathlib.Path(f"/proc/{self.pid}/root{inside}")

    def enter(self, argv, net_only=False):
        spaces = ["-n"] if net_only else ["-m", "-n"]
        return ["nsenter", "-t", str(self.pid)] + spaces + [str(word) for word in argv]

    def run(self, *argv, net_only=False, check=True, **more):
        done = subprocess.run(self.enter(argv, net_only), stdin=more.pop("stdin", subprocess.DEVNULL),
                              capture_output=True, text=True, errors="replace", **more)
        if check and done.returncode != 0:
            raise RuntimeError(f"{self.name}: {' '.join(map(str, argv))}: status {done.returncode}: {done.stderr}")
        return done

    def ip(self, *words, check=True):
        return self.run("ip", *words, net_only=True, check=check)

    def ip_batch(self, lines):
        self.run("ip", "-batch", "-", net_only=True, stdin=None, input="\n".join(lines) + "\n")

    def link_set(self, port, up):
        self.ip("link", "set", port, "up" if up else "down")

    def spawn(self, name, argv, log=None):
        process = Process(f"{self.name}/{name}", self.enter(argv), log or self.lab.logs / f"{self.name}-{name}.log",
                          detached=self.lab.keep)
        self.processes.append(process)
        return process

    def in_network(self, function):
        """Runs `function` in a thread that has entered the network namespace; sockets it opens stay there."""
        result = {}

        def body():
            try:
                enter_network(self)
                result["value"] = function()
            except BaseException as error:  # handed to the caller's thread
                result["error"] = error

        thread = threading.Thread(target=body)
        thread.start()
        thread.join()
        if "error" in result:
            raise result["error"]
        return result["value"]

    def packet_socket(self, port, protocol=3):
        """A raw packet socket of `port`, of all if None; 3 as the protocol sees what is sent from here too."""
        def make():
            made = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(protocol))
            made.setsockopt(socket.SOL_SOCKET, 33, 4 << 20)  # SO_RCVBUFFORCE
            if port:
                made.bind((port, protocol))
            return made
        return self.in_network(make)

    def stop(self):
        for process in reversed(self.processes):
            if process.alive():
                with contextlib.suppress(Timeout):
                    process.stop()
            if process.alive():
                process.send(signal.SIGKILL)  # that it came to this is a fault: see complaints()
                process.wait()
        self.holder.kill()
        self.holder.wait()
        self.holder.stdin.close()
        self.holder.stdout.close()

    def complaints(self):
        """Why the processes of this node did not end well, one line each."""
        found = []
        for process in self.processes:
            text = process.text()
            for mark in ("ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "runtime error:"):
                if mark in text:
                    line = next(line for line in text.splitlines() if mark in line)
                    found.append(f"{process.name}: {line.strip()}")
                    break
            status, expected = process.popen.poll(), process.expected_status or 0
            if status != expected:
                found.append(f"{process.name}: ended with status {status} instead of {expected}")
        return found


class Switch(Node):
    """A node with nsmd and esmcd. Either may be left out, started late, killed and started again."""

    nsmd = None
    esmcd = None
    pause = 0.1 if IN_GUEST else 0.02  # seconds between two questions that take a program each

    def start_nsmd(self, *options):
        options = options or ("--port", "p*", "--dpll", "sim")
        self.nsmd = self.spawn("nsmd", [f"{BIN}/nsmd", *options])
        wait_until(lambda: os.path.lexists(self.path("/run/nsmd.sock")) or not self.nsmd.alive(), what="nsmd listens")
        return self.nsmd

    def start_esmcd(self, *options, wait=True):
        self.esmcd = self.spawn("esmcd", [f"{BIN}/esmcd", *options])
        if wait:
            self.wait_shell()
        return self.esmcd

    def start(self, ports="p*"):
        self.start_nsmd("--port", ports, "--dpll", "sim")
        self.start_esmcd()
        return self

    def wait_shell(self):
        """Until esmcd answers on its terminal; its end before that is said with its log."""
        def answers():
            if not self.esmcd.alive():
                raise RuntimeError(f"esmcd ended with {self.esmcd.popen.returncode}:\n{self.esmcd.text()[-2000:]}")
            return os.path.lexists(self.path("/run/esmcd.vty")) and self.cli(check=False).status == 0
        wait_until(answers, what=f"{self.name}: esmcd answers", interval=self.pause)

    def cli(self, *lines, check=True, **more):
        """Runs the lines through `esmcsh -c`. With `check`, a line that fails is an error."""
        argv = [f"{BIN}/esmcsh"]
        for line in lines or ("show clock recovery-select",):
            argv += ["-c", line]
        reply = Reply(self.run(*argv, check=False, **more))
        if check and reply.status != 0:
            raise AssertionError(f"{self.name}: {lines}: {reply}")
        return reply

    def configure(self, *lines):
        return self.cli("configure terminal", *lines)

    def show(self, *words):
        return self.cli("show " + " ".join(words)).out

    def clock(self):
        """The global clock block as a dictionary."""
        return parse_show(self.show("clock synce"))

    def port(self, name):
        """The block of one port as a dictionary; empty when there is no such port."""
        return parse_show(self.show("clock synce", name))

    def wait_clock(self, deadline=PATIENCE, **expected):
        """Waits until the clock block has these values; keys by the short names of CLOCK_LABELS."""
        return self._wait_values(self.clock, CLOCK_LABELS, expected, deadline)

    def wait_port(self, name, deadline=PATIENCE, **expected):
        return self._wait_values(lambda: self.port(name), PORT_LABELS, expected, deadline)

    def _wait_values(self, read, labels, expected, deadline):
        seen = {}

        def matches():
            seen.clear()
            seen.update(read())
            return all(seen.get(labels[key]) == value for key, value in expected.items())
        try:
            wait_until(matches, deadline, str(expected), interval=self.pause)
        except Timeout:
            shown = {key: seen.get(labels[key]) for key in expected}
            raise Timeout(f"{self.name}: not within {deadline:g} s: {expected}; it shows {shown}") from None
        return dict(seen)


class Plug:
    """Pulls and plugs a cable without the delay of starting a program: returns when the kernel was asked."""

    def __init__(self, node, port):
        self.port = port.encode()
        self.socket = node.in_network(lambda: socket.socket(socket.AF_INET, socket.SOCK_DGRAM))

    def set(self, up):
        request = fcntl.ioctl(self.socket, _SIOCGIFFLAGS, struct.pack("16sH22x", self.port, 0))
        flags = struct.unpack("16sH22x", request)[1]
        flags = flags | _IFF_UP if up else flags & ~_IFF_UP
        asked = time.monotonic()
        fcntl.ioctl(self.socket, _SIOCSIFFLAGS, struct.pack("16sH22x", self.port, flags))
        return asked


CLOCK_LABELS = {
    "id": "Device ClockID", "synce": "Enable global synce", "ssm": "Enable global ssm", "option": "SSM option mode",
    "device_quality": "Device quality", "quality": "Current quality", "priority": "Device priority",
    "source": "Current selected interface", "forced": "Switch force interface", "extension": "Enable ssm extension",
    "state": "Clock running state", "type": "Device type", "valid": "Selected Clock Valid Status",
    "dpll": "DPLL running state",
}

PORT_LABELS = {
    "name": "Interface", "synce": "Synce enable", "esmc": "ESMC RX/TX", "up": "Port up", "rx": "Receive quality",
    "tx": "Send quality", "forced_rx": "Quality RX configured", "forced_tx": "Quality TX configured",
    "priority": "Port priority", "dnu_group": "DNU group", "replace": "Replace clockid",
    "sending": "Send timer running", "receiving": "Timeout timer running",
}


class Lab:
    """All nodes and links of one test or demonstration."""

    def __init__(self, logs, build=None, keep=False):
        self.build = pathlib.Path(build) if build else build_dir()
        self.logs, self.keep, self.nodes, self._next_index = pathlib.Path(logs), keep, [], 10
        self.logs.mkdir(parents=True, exist_ok=True)
        for program in ("esmcd", "nsmd", "esmcsh"):
            if not (self.build / "bin" / program).is_file():
                raise RuntimeError(f"{self.build}/bin/{program} is missing: build it first, or set ESMC_BUILD")
        self.sanitized = is_sanitized(self.build)

    def node(self, name, **more):
        made = Node(self, name, **more)
        self.nodes.append(made)
        return made

    def switch(self, name, **more):
        made = Switch(self, name, **more)
        self.nodes.append(made)
        return made

    def link(self, one, port, other, other_port, up=True):
        """A veth pair. The two ends get different kernel indexes: the kernel holds back the down message of a
        pair with equal ones by up to a second, as if it were a physical port."""
        first = self._next_index
        self._next_index += 2
        self.links([(one, port, first, other, other_port, first + 1)])
        if up:
            one.link_set(port, True)
            other.link_set(other_port, True)

    @staticmethod
    def links(wanted):
        """Veth pairs, all by one program: (node, port, kernel index, node, port, kernel index) each. They are down."""
        lines = [f"link add name {port} index {index} netns {one.pid} type veth "
                 f"peer name {other_port} index {other_index} netns {other.pid}"
                 for one, port, index, other, other_port, other_index in wanted]
        subprocess.run(["ip", "-batch", "-"], input="\n".join(lines) + "\n", text=True, check=True)

    def stop(self, each=map):
        """Takes everything down; returns what did not end well. `each` may be a map that does several at a time."""
        found = []
        for _ in each(Node.stop, self.nodes[::-1]):
            pass
        for node in self.nodes:
            found += node.complaints()
        self.nodes = []
        return found

    def tails(self, lines=40):
        """The ends of all logs, for a report of failure."""
        parts = []
        for log in sorted(self.logs.glob("*.log")):
            text = log.read_text(errors="replace").splitlines()
            parts.append(f"--- {log.name} (last {min(lines, len(text))} of {len(text)} lines)")
            parts += text[-lines:]
        return "\n".join(parts)

    def remove_logs(self):
        shutil.rmtree(self.logs, ignore_errors=True)
