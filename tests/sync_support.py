"""Linked ZarnuAgents for end-to-end suites, and ways to compare their folders with
the cloud: SyncedAgent (its own data, root and home folders, linked to a zarnu-cloud
with `ZarnuAgent -link`), eventually, local_tree, cloud_tree, write, and the fixtures
`cloud`, `client` and `agent` (import them into a conftest)."""
import os
import pathlib
import time

import pytest

from agent_support import AgentProcess, CloudProcess, add_user, agent_env, agent_log, link_agent, run_program

USER, PASSWORD = "alice", "correct horse"


@pytest.fixture
def cloud(tmp_path):
    """A zarnu-cloud on loopback with the account USER, stopped by process id."""
    proc = CloudProcess(tmp_path / "cloud").start()
    add_user(proc.data_dir, USER, PASSWORD)
    yield proc
    proc.stop()


@pytest.fixture
def client(cloud):
    """A cloud client logged in as USER."""
    c = cloud.client()
    c.login(USER, PASSWORD)
    yield c
    c.close()


@pytest.fixture
def agent(tmp_path, cloud):
    """A started SyncedAgent named "a", stopped by process id."""
    a = SyncedAgent(tmp_path, "a", cloud.url).start()
    yield a
    a.stop()


class SyncedAgent:
    """A linked ZarnuAgent: `root` is its synced folder, `data` its data folder."""

    def __init__(self, base, name, cloud_url):
        self.base = pathlib.Path(base) / name
        self.data = self.base / "data"
        self.root = self.base / "root"
        self.home = self.base / "home"
        self.home.mkdir(parents=True)
        self.env = agent_env(self.data, self.home)
        self.link(self.root, cloud_url)
        self.process = None

    def link(self, root, cloud_url):
        """Links the data folder to USER's account with `root` as the synced folder."""
        self.root = root
        done = link_agent(self.env, USER, PASSWORD, root, cloud_url)
        assert done.returncode == 0, done.stderr

    def start(self):
        self.process = AgentProcess(self.data, self.home).start()
        return self

    def stop(self, sig=None):
        if self.process is None:
            return None
        code = self.process.stop(sig) if sig is not None else self.process.stop()
        self.process = None
        return code

    def log(self):
        return agent_log(self.data)

    def put_option(self, name, value):
        out = run_program("zarnucmd", "Config", "put", name, value, env=self.env)
        assert out.returncode == 0, out.stderr

    def connect(self):
        return self.process.connect()


def eventually(check, timeout=60, what="the folders to converge"):
    """Polls `check` until it returns a true value; fails with its last value."""
    deadline = time.monotonic() + timeout
    last = None
    while time.monotonic() < deadline:
        last = check()
        if last is True or (last and not isinstance(last, str)):
            return last
        time.sleep(0.1)
    raise AssertionError(f"timed out waiting for {what}: {last}")


def local_tree(root):
    """{relative path: bytes} of the files below `root`, and the set of folders."""
    files, folders = {}, set()
    for dirpath, dirnames, filenames in os.walk(root):
        rel = os.path.relpath(dirpath, root)
        dirnames[:] = [d for d in dirnames if not d.startswith(".Trash-")]
        for d in dirnames:
            folders.add(os.path.normpath(os.path.join(rel, d)))
        for f in filenames:
            path = os.path.normpath(os.path.join(rel, f))
            try:
                with open(os.path.join(dirpath, f), "rb") as fh:
                    files[path] = fh.read()
            except FileNotFoundError:
                pass  # an agent's download renamed into place while we walked: the next look sees it
    return files, folders


def cloud_tree(client):
    """{relative path: bytes} of the live cloud files (every part fetched and checked)."""
    files = {}
    for page in client.list_pages("/", recurse=True, include_parts=True):
        for entry in page["entries"]:
            if entry["is_folder"] or entry["path"] == "/":
                continue
            data = b""
            fps = [p["fingerprint"] for p in entry["parts"]]
            for i in range(0, len(fps), 50):
                for fp, status, chunk in client.download(entry["id"], fps[i:i + 50]):
                    assert status == "ok", (entry["path"], fp, status)
                    data += chunk
            assert len(data) == entry["size"], entry["path"]
            files[entry["path"][1:]] = data
    return files


def write(path, data):
    path = pathlib.Path(path)
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(data)
    # Written files count as complete once they are a little older; move the
    # mtime back so the agent need not wait.
    old = time.time() - 10
    os.utime(path, (old, old))
