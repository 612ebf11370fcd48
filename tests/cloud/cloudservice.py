"""Starting and stopping zarnu-cloud for tests (used by conftest.py and the tests)."""

import pathlib
import signal
import subprocess
import sys

import pytest

from cloudclient import CloudClient

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))
from ready import NotReady, bin_dir, first_lines, stop_process  # noqa: E402

CLOUD = bin_dir() / "zarnu-cloud"
START_TIMEOUT = 30


def run_cloud(*args, stdin=None, check=True):
    """Runs a zarnu-cloud command to completion."""
    result = subprocess.run([str(CLOUD), *map(str, args)], input=stdin, capture_output=True, text=True,
                            timeout=60)
    if check and result.returncode != 0:
        raise AssertionError(f"zarnu-cloud {' '.join(map(str, args))} failed: {result.stderr}")
    return result


def add_user(data_dir, name, password, build=False):
    """Adds an account; `build` gives it the build role (build slots)."""
    run_cloud("user", "add", name, "--data", data_dir, *(["--build"] if build else []), stdin=password + "\n")


class CloudProcess:
    """One running `zarnu-cloud serve`."""

    def __init__(self, data_dir, *options, prefix=()):
        """`prefix` runs the service under another command (`ip netns exec NS`), which
        must exec it so that the process id stays the service's."""
        self.prefix = tuple(prefix)
        self.data_dir = pathlib.Path(data_dir)
        self.data_dir.mkdir(parents=True, exist_ok=True)
        self.options = options or ("--listen", "127.0.0.1:0", "--http")
        self.log_path = self.data_dir / "serve.log"
        self.proc = None
        self.url = None

    def start(self):
        if not CLOUD.exists():
            pytest.fail(f"{CLOUD} does not exist: build zarnu-cloud or set ZARNU_BIN_DIR", pytrace=False)
        log = open(self.log_path, "ab")
        self.proc = subprocess.Popen([*self.prefix, str(CLOUD), "serve", "--data", str(self.data_dir), *self.options],
                                     stdout=subprocess.PIPE, stderr=log, stdin=subprocess.DEVNULL)
        log.close()
        self.url = self._read_listening_line()
        return self

    def _read_listening_line(self):
        try:
            (text,) = first_lines(self.proc, 1, START_TIMEOUT)
        except NotReady as e:
            if not e.exited:
                self.kill()
            raise AssertionError(f"zarnu-cloud {e}: " + self.log()) from None
        assert text.startswith("listening on "), text
        return text[len("listening on "):]

    def log(self):
        return self.log_path.read_text(errors="replace") if self.log_path.exists() else ""

    def client(self, **kwargs):
        return CloudClient(self.url, **kwargs)

    def account(self, name, password):
        """Adds the account `name` and returns a client logged in to it (its `name` set)."""
        add_user(self.data_dir, name, password)
        client = self.client()
        client.login(name, password)
        client.name = name
        return client

    def operator_token(self):
        """The operator credential the service made in its data folder."""
        return (self.data_dir / "operator.token").read_text().strip()

    def operator_client(self):
        """A client holding the operator credential (service-wide statistics)."""
        return CloudClient(self.url, token=self.operator_token())

    def stop(self, sig=signal.SIGTERM):
        """Signals the process by id and waits; returns its exit status."""
        if self.proc is None:
            return None
        code = stop_process(self.proc, sig)
        self.proc.stdout.close()
        self.proc = None
        return code

    def kill(self):
        return self.stop(signal.SIGKILL)
