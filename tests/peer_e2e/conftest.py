"""Fixtures of the peer suite: a small local network of two network namespaces joined
by a veth pair ("a" 10.77.0.1, "b" 10.77.0.2, both /24 with a broadcast address), and
a runner of `zarnucmd Peer list` that records its updates as they are printed.

Making namespaces needs root and iproute2; without them every test skips, naming why.
Namespaces are deleted when the test ends, which takes the veth pair with them."""
import os
import pathlib
import queue
import select
import shutil
import signal
import subprocess
import sys
import threading
import time
import uuid

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))
from agent_support import AgentProcess, agent_env, bin_dir, stop_process  # noqa: E402

DISCOVERY_ON = {"ZARNU_PEER_DISCOVERY": "on"}
BANNER = "Scanning for zarnu clients... (press any key to stop)"
UPDATE = "Peer list updated: "
ADDRESS = {"a": "10.77.0.1", "b": "10.77.0.2"}
STARTUP = 30.0  # seconds a program may take to start on a loaded machine


def ip(*args, check=True):
    return subprocess.run(["ip", *args], capture_output=True, text=True, check=check, timeout=30)


class Lan:
    """Two namespaces on one link; `run_in(name)` is the prefix that runs a command there."""

    def __init__(self):
        tag = uuid.uuid4().hex[:6]
        self.ns = {"a": f"zpa{tag}", "b": f"zpb{tag}"}
        self.veth = {"a": f"zva{tag}", "b": f"zvb{tag}"}

    def up(self):
        for side in "ab":
            ip("netns", "add", self.ns[side])
        ip("link", "add", self.veth["a"], "type", "veth", "peer", "name", self.veth["b"])
        for side in "ab":
            ip("link", "set", self.veth[side], "netns", self.ns[side])
            ip("-n", self.ns[side], "addr", "add", ADDRESS[side] + "/24", "brd", "+", "dev", self.veth[side])
            ip("-n", self.ns[side], "link", "set", self.veth[side], "up")
            ip("-n", self.ns[side], "link", "set", "lo", "up")
        return self

    def down(self):
        for name in self.ns.values():
            ip("netns", "del", name, check=False)

    def run_in(self, side):
        return ["ip", "netns", "exec", self.ns[side]]

    def add_address(self, side, address):
        ip("-n", self.ns[side], "addr", "add", address + "/24", "dev", self.veth[side])


@pytest.fixture
def lan():
    if os.geteuid() != 0:
        pytest.skip("network namespaces need root")
    if shutil.which("ip") is None:
        pytest.skip("iproute2's ip is not installed")
    network = Lan()
    try:
        network.up()
    except subprocess.CalledProcessError as e:
        network.down()
        pytest.skip(f"cannot make network namespaces here: {e.stderr.strip()}")
    yield network
    network.down()


def env_for(tmp_path, name):
    """The environment of a program whose home is tmp_path/name, its data folder "data" there."""
    (tmp_path / name).mkdir(exist_ok=True)
    return dict(agent_env(tmp_path / name / "data", tmp_path / name), **DISCOVERY_ON)


class PeerScan:
    """`zarnucmd Peer list` in a namespace. Every complete update is put on `updates`
    as (seconds since start, list of peer lines)."""

    def __init__(self, prefix, tmp_path, stdin=subprocess.PIPE, stdout=subprocess.PIPE):
        self.started = time.monotonic()
        self.proc = subprocess.Popen([*prefix, str(bin_dir() / "zarnucmd"), "Peer", "list"],
                                     env=env_for(tmp_path, "scan"), stdin=stdin, stdout=stdout,
                                     stderr=subprocess.PIPE, text=True)
        self.lines = []
        self.scanning = threading.Event()  # set once the banner is out: the first question follows it
        self.updates = queue.Queue()
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        current = None
        for raw in self.proc.stdout:
            line = raw.rstrip("\n")
            self.lines.append(line)
            if line == BANNER:
                self.scanning.set()
            elif line == UPDATE:
                current = []
            elif current is not None and line == "":
                self.updates.put((time.monotonic() - self.started, current))
                current = None
            elif current is not None:
                assert line.startswith("  "), f"a peer line is indented by two blanks: {line!r}"
                current.append(line[2:])

    def wait_for(self, check, timeout, what):
        """The first update whose peer lines satisfy `check`, within `timeout` seconds of the
        call or of the scan's banner, whichever is later: starting the program on a busy
        machine is not the discovery's time."""
        assert self.scanning.wait(STARTUP), f"no banner within {STARTUP} s: {self.lines}"
        deadline = time.monotonic() + timeout
        seen = []
        while True:
            remaining = deadline - time.monotonic()
            if remaining <= 0:
                raise AssertionError(f"no update showed {what} within {timeout} s; updates: {seen}")
            try:
                at, peers = self.updates.get(timeout=remaining)
            except queue.Empty:
                continue
            seen.append(peers)
            if check(peers):
                return at, peers

    def error_line(self, timeout=10):
        """The next line on standard error, waiting at most `timeout` seconds."""
        ready, _, _ = select.select([self.proc.stderr], [], [], timeout)
        assert ready, f"nothing on standard error within {timeout} s"
        return self.proc.stderr.readline().rstrip("\n")

    def stop(self):
        """Ends the scan with a line, as a user at a pipe would; returns (status, stderr)."""
        try:
            self.proc.stdin.write("\n")
            self.proc.stdin.flush()
        except BrokenPipeError:
            pass
        try:
            code = self.proc.wait(timeout=10)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            code = self.proc.wait()
        self.reader.join(timeout=10)
        return code, self.proc.stderr.read()

    def kill(self):
        stop_process(self.proc, signal.SIGKILL)


@pytest.fixture
def scan(lan, tmp_path):
    """Starts scans; whatever is still running at the end is killed by process id."""
    started = []

    def start(side="b", prefix=None, **kwargs):
        s = PeerScan(prefix or lan.run_in(side), tmp_path, **kwargs)
        started.append(s)
        return s
    yield start
    for s in started:
        s.kill()


@pytest.fixture
def agent_in(lan, tmp_path):
    """Starts a ZarnuAgent in a namespace, for a data folder of its own per name."""
    agents = []

    def start(side="a", name="agent"):
        (tmp_path / name).mkdir(exist_ok=True)
        agents.append(AgentProcess(tmp_path / name / "data", tmp_path / name, prefix=lan.run_in(side),
                                   env=DISCOVERY_ON).start())
        return agents[-1]
    yield start
    for agent in agents:
        agent.stop()
