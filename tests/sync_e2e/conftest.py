"""Fixtures of the sync suite: the real zarnu-cloud with one account, and real
ZarnuAgents linked to it, each with its own data folder and root folder."""
import pathlib
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))
from sync_support import (PASSWORD, USER, SyncedAgent, client, cloud, cloud_tree, eventually,  # noqa: E402,F401
                          local_tree, write)


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
