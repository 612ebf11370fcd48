"""Shared fixtures of the end-to-end suites.

Binaries are taken from $ZARNU_BIN_DIR (CTest sets it), else build/release/bin.
Every process a test starts is stopped by the test, by process id.
"""
import os
import pathlib
import subprocess

import pytest

from agent_support import agent_env
from ready import bin_dir  # noqa: F401  (the suites import it from here)

# Agents and engines started by the suites stay off the machine's network; the
# peer suite switches discovery back on inside network namespaces it makes.
os.environ["ZARNU_PEER_DISCOVERY"] = "off"


class ZarnuCmd:
    """Runs zarnucmd as a user would, with its own data folder."""

    def __init__(self, data_dir: pathlib.Path, env: dict):
        self.data_dir = data_dir
        self.env = env
        self.exe = str(bin_dir() / "zarnucmd")

    def run(self, *args, input=None, timeout=120, env=None, exe=None):
        full_env = dict(self.env)
        if env:
            full_env.update(env)
        return subprocess.run([exe or self.exe, *map(str, args)], capture_output=True, text=True,
                              input=input, timeout=timeout, env=full_env)


@pytest.fixture
def zarnucmd(tmp_path):
    """A zarnucmd runner whose data folder ($ZARNU_DATA) is a fresh temporary folder."""
    data = tmp_path / "zarnu-data"
    return ZarnuCmd(data, agent_env(data, tmp_path))
