"""Fixtures of the status suite: a zarnu-cloud with one account and a linked
ZarnuAgent whose root folder holds a small tree, and a runner of
`zarnucmd Overlay status` against that agent."""
import pathlib
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))
from agent_support import run_program  # noqa: E402
from sync_support import agent, client, cloud, cloud_tree, eventually, write  # noqa: E402,F401


@pytest.fixture
def zarnucmd(agent):
    return lambda *args, **kwargs: run_program("zarnucmd", *args, env=agent.env, **kwargs)
