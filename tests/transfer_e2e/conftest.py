"""Fixtures of the transfer suite (helpers in transfer_support.py)."""

import pytest

from transfer_support import Cloud


@pytest.fixture
def cloud(zarnucmd, tmp_path):
    service = Cloud(zarnucmd, tmp_path / "cloud-data")
    yield service
    service.stop()
