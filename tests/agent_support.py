"""The real ZarnuAgent for end-to-end tests, and a client of its overlay socket.

AgentProcess starts `ZarnuAgent` for a data folder, waits for its "listening on"
line and stops it by process id. OverlayConnection speaks the overlay frames of
docs/overlay-protocol.md (magic "ZOV1", big-endian body length, big-endian JSON
length, JSON, attachments) and answers the agent's own requests.
"""
import json
import os
import pathlib
import signal
import socket
import struct
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent / "cloud"))
from cloudservice import CloudProcess, add_user  # noqa: E402,F401  (re-exported for the suites)
from ready import NotReady, bin_dir, first_lines, stop_process  # noqa: E402

START_TIMEOUT = 30


def run_program(name, *args, env, prefix=(), timeout=60, **kwargs):
    """Runs a built program (under `prefix`) to completion, its output captured as text."""
    return subprocess.run([*prefix, str(bin_dir() / name), *map(str, args)], env=env, capture_output=True,
                          text=True, timeout=timeout, **kwargs)


def link_agent(env, user, password, root, url, prefix=()):
    """`ZarnuAgent -link` for the data folder of `env`, the password typed in as a user would."""
    return run_program("ZarnuAgent", "-link", f"-username={user}", f"-root={root}", f"-cloudAddress={url}",
                       env=env, prefix=prefix, input=password + "\n")


def agent_log(data_dir):
    path = pathlib.Path(data_dir) / "agent.log"
    return path.read_text(errors="replace") if path.exists() else ""


def agent_env(data_dir, home):
    env = dict(os.environ)
    env["ZARNU_DATA"] = str(data_dir)
    env["HOME"] = str(home)
    env.pop("ZARNU_CLOUD_ADDRESS", None)
    return env


class AgentProcess:
    """One running ZarnuAgent; `lines` holds its "listening on" addresses."""

    def __init__(self, data_dir, home, *switches, prefix=(), env=None):
        """`prefix` runs the agent under another command (`ip netns exec NS`), which
        must exec it so that the process id stays the agent's; `env` adds variables."""
        self.prefix = tuple(prefix)
        self.data_dir = pathlib.Path(data_dir)
        self.env = agent_env(data_dir, home)
        self.env.update(env or {})
        self.switches = switches
        self.proc = None
        self.lines = []

    @property
    def socket_path(self):
        return self.data_dir / "zarnuagent-overlay.socket"

    def start(self, expected_lines=1):
        self.proc = subprocess.Popen([*self.prefix, str(bin_dir() / "ZarnuAgent"), *self.switches], env=self.env,
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE, stdin=subprocess.DEVNULL)
        try:
            self.lines = first_lines(self.proc, expected_lines, START_TIMEOUT)
        except NotReady as e:
            why = f"ZarnuAgent {e}: " + (self.proc.stderr.read().decode() if e.exited else "")
            self.stop(signal.SIGKILL)
            raise AssertionError(why) from None
        assert all(line.startswith("listening on ") for line in self.lines), self.lines
        return self

    def stop(self, sig=signal.SIGTERM):
        """Signals the agent by process id and waits; returns its exit status."""
        if self.proc is None:
            return None
        code = stop_process(self.proc, sig)
        self.proc.stdout.close()
        self.proc.stderr.close()
        self.proc = None
        return code

    def log(self):
        return agent_log(self.data_dir)

    def connect(self):
        return OverlayConnection.unix(self.socket_path)


def encode_frame(obj, attachments=()):
    text = json.dumps(obj).encode()
    body = struct.pack(">I", len(text)) + text + b"".join(struct.pack(">I", len(a)) + a for a in attachments)
    return b"ZOV1" + struct.pack(">I", len(body)) + body


class OverlayConnection:
    """A client session: request() sends and waits for the matching reply; the
    agent's own requests met meanwhile are answered and kept in `pushed`."""

    def __init__(self, sock):
        self.sock = sock
        self.sock.settimeout(10)
        self.next_id = 1
        self.pushed = []
        self.attachments = []  # binary attachments of the last frame received

    @classmethod
    def unix(cls, path):
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        sock.connect(str(path))
        return cls(sock)

    @classmethod
    def tcp(cls, address):
        host, port = address.rsplit(":", 1)
        return cls(socket.create_connection((host, int(port)), timeout=10))

    def close(self):
        self.sock.close()

    def send(self, obj):
        self.sock.sendall(encode_frame(obj))

    def _exactly(self, n):
        data = b""
        while len(data) < n:
            chunk = self.sock.recv(n - len(data))
            if not chunk:
                raise ConnectionError("the agent closed the session")
            data += chunk
        return data

    def receive(self):
        magic, length = struct.unpack(">4sI", self._exactly(8))
        assert magic == b"ZOV1", magic
        body = self._exactly(length)
        (json_len,) = struct.unpack(">I", body[:4])
        rest, self.attachments = body[4 + json_len:], []
        while rest:
            (size,) = struct.unpack(">I", rest[:4])
            self.attachments.append(rest[4:4 + size])
            rest = rest[4 + size:]
        return json.loads(body[4:4 + json_len])

    def _next_frame(self):
        """The next frame; the agent's own requests are answered and kept in `pushed`."""
        frame = self.receive()
        if "method" in frame:
            self.pushed.append(frame)
            self.send({"id": frame["id"], "result": {}})
        return frame

    def request(self, method, **params):
        ident = self.next_id
        self.next_id += 1
        message = {"id": ident, "method": method}
        if params:
            message["params"] = params
        self.send(message)
        while True:
            frame = self._next_frame()
            if "method" not in frame:
                assert frame["id"] == ident, frame
                return frame

    def wait_push(self, method):
        """The first request `method` the agent sent, waiting for it (the socket's time-out
        ends the wait): the agent posts a push beside the reply that caused it, so it may
        come before or after that reply."""
        while not any(p["method"] == method for p in self.pushed):
            frame = self._next_frame()
            assert "method" in frame, f"a reply nobody waits for came before {method}: {frame}"
        return next(p for p in self.pushed if p["method"] == method)

    def result(self, method, **params):
        reply = self.request(method, **params)
        assert "error" not in reply, reply
        return reply["result"]
