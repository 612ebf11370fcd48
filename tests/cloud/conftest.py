"""Fixtures that start zarnu-cloud for end-to-end tests.

The binaries are looked up in $ZARNU_BIN_DIR (default: build/release/bin below the
repository root). A service is started with
`zarnu-cloud serve --data <tmp> --listen 127.0.0.1:0 --http`, the fixture waits for its
"listening on <url>" line and stops it by process id afterwards.

Fixtures:
  cloud_url        a fresh service for one test; yields its URL
  cloud_server     a fresh service shared by a test module (a CloudProcess)
  cloud_factory    starts services with any options; all are stopped at the end
  new_account      makes a user on cloud_server and returns a logged-in CloudClient
"""

import itertools
import pathlib
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))

from cloudservice import CloudProcess  # noqa: E402


@pytest.fixture
def cloud_factory(tmp_path):
    """start(data_dir=None, *options) -> started CloudProcess; all stopped afterwards."""
    started = []
    counter = itertools.count()

    def start(data_dir=None, *options):
        proc = CloudProcess(data_dir or tmp_path / f"cloud{next(counter)}", *options)
        started.append(proc)
        return proc.start()

    yield start
    for proc in started:
        proc.kill()


@pytest.fixture
def cloud_url(cloud_factory):
    yield cloud_factory().url


@pytest.fixture(scope="module")
def cloud_server(tmp_path_factory):
    proc = CloudProcess(tmp_path_factory.mktemp("cloud")).start()
    yield proc
    proc.kill()


_names = itertools.count()


@pytest.fixture
def new_account(cloud_server):
    """new_account() -> CloudClient logged in as a new user on cloud_server."""
    clients = []

    def make(password="correct horse"):
        client = cloud_server.account(f"user{next(_names)}", password)
        clients.append(client)
        return client

    yield make
    for c in clients:
        c.close()
