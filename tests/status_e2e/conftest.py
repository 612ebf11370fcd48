"""Fixtures of the status suite: a zarnu-cloud with one account and a linked
ZarnuAgent whose root folder holds a small tree, and a runner of
`zarnucmd Overlay status` against that agent."""
import pathlib
import subprocess
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))
from agent_support import bin_dir  # noqa: E402
from sync_support import SyncedAgent, client, cloud, cloud_tree, eventually, write  # noqa: E402,F401


@pytest.fixture
def agent(tmp_path, cloud):
    a = SyncedAgent(tmp_path, "a", cloud.url).start()
    yield a
    a.stop()


@pytest.fixture
def zarnucmd(agent):
    def run(*args, **kwargs):
        return subprocess.run([str(bin_dir() / "zarnucmd"), *args], env=agent.env, capture_output=True, text=True,
                              timeout=60, **kwargs)
    return run
