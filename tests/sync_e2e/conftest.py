"""Fixtures of the sync suite: the real zarnu-cloud with one account, and real
ZarnuAgents linked to it, each with its own data folder and root folder."""
import pathlib
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))
from agent_support import CloudProcess, add_user  # noqa: E402
from sync_support import (PASSWORD, USER, SyncedAgent, cloud_tree, eventually, local_tree,  # noqa: E402,F401
                          write)


@pytest.fixture
def cloud(tmp_path):
    proc = CloudProcess(tmp_path / "cloud").start()
    add_user(proc.data_dir, USER, PASSWORD)
    yield proc
    proc.stop()


@pytest.fixture
def client(cloud):
    c = cloud.client()
    c.login(USER, PASSWORD)
    yield c
    c.close()


@pytest.fixture
def make_agent(tmp_path, cloud):
    made = []

    def make(name="a", start=True):
        agent = SyncedAgent(tmp_path, name, cloud.url)
        made.append(agent)
        return agent.start() if start else agent

    yield make
    for agent in made:
        agent.stop()
