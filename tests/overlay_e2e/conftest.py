"""Fixtures of the overlay suite: zarnucmd with a fresh data folder, and the
real ZarnuAgent serving that folder."""
import pytest

from agent_support import AgentProcess


@pytest.fixture
def agent(zarnucmd, tmp_path):
    proc = AgentProcess(zarnucmd.data_dir, tmp_path).start()
    yield proc
    proc.stop()
