"""Fixtures of the agent suite: a ZarnuAgent per test in a fresh data folder."""
import pytest

from agent_support import AgentProcess


@pytest.fixture
def data_dir(tmp_path):
    return tmp_path / "zarnu-data"


@pytest.fixture
def agent(tmp_path, data_dir):
    proc = AgentProcess(data_dir, tmp_path).start()
    yield proc
    proc.stop()
