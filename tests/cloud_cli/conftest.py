"""Fixtures of the zarnucmd Cloud suite: a real zarnu-cloud per test module
(stopped by process id when the module ends), accounts on it, and a runner
for `zarnucmd Cloud <verb>` with a fresh data folder per test."""
import itertools
import socket

import pytest

from cli_support import Account, CloudCmd, CloudProcess

_names = itertools.count()


@pytest.fixture(scope="module")
def service(tmp_path_factory):
    proc = CloudProcess(tmp_path_factory.mktemp("cloud")).start()
    yield proc
    proc.stop()


@pytest.fixture
def new_account(service):
    """new_account(name=None, password=...) -> an Account on the module's service."""

    def make(name=None, password="pass word 1"):
        return Account(service, name or f"user{next(_names)}", password)

    return make


@pytest.fixture
def cloud(zarnucmd, service):
    return CloudCmd(zarnucmd, service.url)


@pytest.fixture
def closed_url():
    """The address of a local port nothing listens on."""
    sock = socket.socket()
    sock.bind(("127.0.0.1", 0))
    port = sock.getsockname()[1]
    sock.close()
    return f"http://127.0.0.1:{port}/"
