"""Fixtures of the mount suite: a zarnu-cloud on loopback with one account whose files
were put by `zarnucmd Cloud put`, and `zarnucmd Cloud mount` runs that are unmounted and
stopped by process id when the test ends. Skips, naming why, where FUSE cannot run."""
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import threading
import time

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))
from agent_support import bin_dir, run_program, stop_process  # noqa: E402
from sync_support import PASSWORD, USER, cloud  # noqa: E402,F401

START_TIMEOUT = 30


def fuse_missing():
    if not os.path.exists("/dev/fuse"):
        return "/dev/fuse is missing"
    if shutil.which("fusermount3") is None:
        return "fusermount3 is not installed"
    return None


def is_mounted(path):
    with open("/proc/self/mounts") as mounts:
        return any(line.split()[1] == str(path) for line in mounts)


class Zarnucmd:
    def __init__(self, tmp_path, cloud_url):
        self.env = dict(os.environ, ZARNU_DATA=str(tmp_path / "data"), HOME=str(tmp_path))
        self.login = [f"-username={USER}", f"-password={PASSWORD}", f"-cloudAddress={cloud_url}"]

    def run(self, *args):
        return run_program("zarnucmd", *args, *self.login, env=self.env, timeout=120)


class MountRun:
    """One `zarnucmd Cloud mount`; `output` collects standard output as it comes."""

    def __init__(self, zarnucmd, cloud_path, mount_point):
        self.mount_point = pathlib.Path(mount_point)
        self.proc = subprocess.Popen([str(bin_dir() / "zarnucmd"), "Cloud", "mount", str(cloud_path), str(mount_point),
                                      *zarnucmd.login], stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=zarnucmd.env)
        self.output = b""
        self.changed = threading.Condition()
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        while chunk := os.read(self.proc.stdout.fileno(), 4096):
            with self.changed:
                self.output += chunk
                self.changed.notify_all()

    def wait_for(self, check, timeout=START_TIMEOUT, what="output"):
        deadline = time.monotonic() + timeout
        with self.changed:
            while not check(self.output.decode(errors="replace")):
                remaining = deadline - time.monotonic()
                if remaining <= 0 or (self.proc.poll() is not None and not self.changed.wait(0.5)):
                    raise AssertionError(f"no {what}; output {self.output!r}, stderr "
                                         f"{self.proc.stderr.read() if self.proc.poll() is not None else ''}")
                self.changed.wait(remaining)

    def mounted(self):
        self.wait_for(lambda text: "Successfully mounted" in text, what="mount line")
        assert is_mounted(self.mount_point)
        return self

    def finish(self, timeout=30):
        code = self.proc.wait(timeout=timeout)
        self.reader.join(timeout=10)
        return code, self.output.decode(), self.proc.stderr.read().decode()

    def stop(self):
        stop_process(self.proc, signal.SIGKILL)
        if is_mounted(self.mount_point):
            subprocess.run(["fusermount3", "-u", str(self.mount_point)], capture_output=True)


@pytest.fixture
def zarnucmd(tmp_path, cloud):
    reason = fuse_missing()
    if reason:
        pytest.skip(reason)
    return Zarnucmd(tmp_path, cloud.url)


@pytest.fixture
def mount(zarnucmd, tmp_path):
    runs = []

    def start(cloud_path="/", mount_point=None):
        point = mount_point or tmp_path / f"mnt{len(runs)}"
        point.mkdir(exist_ok=True)
        run = MountRun(zarnucmd, cloud_path, point)
        runs.append(run)
        return run
    yield start
    for run in runs:
        run.stop()
