"""Fixtures of the file-manager overlay suite: a zarnu-cloud with one account, a linked
ZarnuAgent, and the overlay's own client (zarnu_overlay.py, imported from the build tree
where ZarnuAgent -installOverlay takes it from) connected to that agent."""
import pathlib
import queue
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))
from agent_support import bin_dir  # noqa: E402
from sync_support import agent, cloud, eventually, write  # noqa: E402,F401

OVERLAY_FILES = bin_dir().parent / "share" / "zarnu" / "filemanager"
sys.dont_write_bytecode = True  # leave the build tree's overlay folder as the build made it
sys.path.insert(0, str(OVERLAY_FILES))
import zarnu_overlay  # noqa: E402


class Recorder:
    """The client's callbacks, kept in the order they came."""

    def __init__(self):
        self.statuses = queue.Queue()
        self.resets = 0
        self.menus = []

    def status(self, path, status):
        self.statuses.put((path, status))

    def reset(self):
        self.resets += 1

    def menu(self, paths):
        self.menus.append(paths)

    def pushed(self):
        """Every (path, status) pushed since the last call."""
        out = []
        while not self.statuses.empty():
            out.append(self.statuses.get_nowait())
        return out


@pytest.fixture
def overlay():
    """Makes started AgentClients (with a Recorder as `calls`) and stops them all."""
    clients = []

    def make(socket_path):
        calls = Recorder()
        client = zarnu_overlay.AgentClient(socket_path, on_status=calls.status, on_reset=calls.reset,
                                           on_menu=calls.menu).start()
        client.calls = calls
        clients.append(client)
        return client

    yield make
    for client in clients:
        client.stop()


def synced(agent, *names):
    """Writes the files into the agent's root folder and waits until the agent calls them synced."""
    conn = agent.connect()
    try:
        for name in names:
            write(agent.root / name, f"the bytes of {name}".encode())
        for name in names:
            eventually(lambda: conn.result("overlay_path_status_sync",
                                           file_path=str(agent.root / name))["cloud_status"] == 1,
                       what=f"{name} to be synced")
    finally:
        conn.close()
    return [str(agent.root / name) for name in names]
