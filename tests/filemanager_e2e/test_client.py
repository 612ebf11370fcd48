"""The overlay's client (what the file-manager extension runs) against the real agent:
statuses become emblems and pushes change them, menus arrive with their icons and their
commands reach the agent, and an agent that is gone or stuck costs the file manager
nothing and no emblem."""
import os
import signal
import struct
import threading

import pytest

from agent_support import AgentProcess
from conftest import eventually, synced, write, zarnu_overlay

PNG_SIGNATURE = b"\x89PNG\r\n\x1a\n"


def stop_agent(pid):
    """SIGSTOP, then waits until every thread of the agent is stopped: a thread busy at the
    signal may otherwise still answer a request sent right after it."""
    os.kill(pid, signal.SIGSTOP)

    def all_stopped():
        states = []
        for task in os.listdir(f"/proc/{pid}/task"):
            with open(f"/proc/{pid}/task/{task}/stat") as stat:
                states.append(stat.read().rsplit(")", 1)[1].split()[0])
        return all(state in ("T", "t") for state in states)

    eventually(all_stopped, timeout=30, what="the agent's threads to stop")


def emblem(client, path):
    return zarnu_overlay.emblem_for(client.status_of(path))


def test_statuses_become_emblems_and_pushes_change_them(agent, cloud, overlay, tmp_path):
    (path,) = synced(agent, "a.txt")
    client = overlay(agent.process.socket_path)
    eventually(lambda: client.root == str(agent.root), what="the root folder")
    assert client.status_of(path) is None  # asked; the agent's push brings it
    eventually(lambda: emblem(client, path) == "emblem-zarnu-synced", what="the synced emblem")
    assert client.calls.pushed() == [(path, zarnu_overlay.PathStatus(1, 5, 0))]
    # Paths outside the root folder are not asked for at all.
    assert client.status_of(str(tmp_path / "elsewhere.txt")) is None
    assert client.calls.pushed() == []

    # A file asked for before it exists has no emblem until the agent pushes its new status.
    later = str(agent.root / "later.txt")
    assert client.status_of(later) is None
    eventually(lambda: client.status_of(later) == zarnu_overlay.PathStatus(0, 0, 0), what="the 'none' push")
    assert emblem(client, later) is None
    write(agent.root / "later.txt", b"written after the question")
    eventually(lambda: emblem(client, later) == "emblem-zarnu-synced", what="the pushed synced status")
    pushed = [status.cloud_status for p, status in client.calls.pushed() if p == later]
    assert pushed[0] == 0 and pushed[-1] == 1 and set(pushed) <= {0, 1, 2}, pushed

    # A change the cloud cannot take turns the badge to the error emblem.
    cloud.stop()
    write(agent.root / "a.txt", b"changed while the cloud is away")
    eventually(lambda: emblem(client, path) == "emblem-zarnu-error", what="the error emblem")


def test_menus_arrive_with_icons_and_their_commands_reach_the_agent(agent, overlay, tmp_path):
    (path,) = synced(agent, "shared.txt")
    client = overlay(agent.process.socket_path)
    eventually(lambda: client.root == str(agent.root), what="the root folder")
    menu = client.menu_for([path], wait=30)
    assert [entry.title for entry in menu] == ["Copy public link", "Show in cloud"]
    for entry in menu:
        assert entry.description and entry.submenus == []
        assert entry.icon.mime_type == "image/png" and entry.icon.data.startswith(PNG_SIGNATURE)
        width, height = struct.unpack(">II", entry.icon.data[16:24])
        assert (width, height) == (entry.icon.width, entry.icon.height)
        # The file manager gets the icon as a file holding exactly those bytes, written once.
        icon = zarnu_overlay.icon_file(entry.icon, str(tmp_path / "icons"))
        assert open(icon, "rb").read() == entry.icon.data
        assert zarnu_overlay.icon_file(entry.icon, str(tmp_path / "icons")) == icon
    assert len(os.listdir(tmp_path / "icons")) == len({entry.icon.data for entry in menu})
    # The same selection is answered from the cache.
    assert client.menu_for([path]) is menu

    done = threading.Event()
    answer = {}
    assert client.run_command(path, menu[0], lambda result, error: (answer.update(result=result, error=error),
                                                                      done.set()))
    assert done.wait(60) and answer["error"] is None, answer
    assert f"Public link for {path}: {answer['result']['link_url']}" in agent.log()

    # Outside the root folder the agent offers no menu (its error 166): nothing to show.
    assert client.menu_for([str(tmp_path / "elsewhere.txt")], wait=30) == []


def returns_at_once(call):
    """Runs `call` on a thread and fails when it has not returned within a generous guard."""
    out = {}
    thread = threading.Thread(target=lambda: out.update(value=call()), daemon=True)
    thread.start()
    thread.join(30)
    assert not thread.is_alive(), "the call hung"
    return out["value"]


def test_no_agent_gives_no_emblem_and_no_wait(overlay, tmp_path):
    client = overlay(tmp_path / "nobody" / "zarnuagent-overlay.socket")
    path = str(tmp_path / "a.txt")
    assert client.status_of(path) is None and not client.connected
    assert returns_at_once(lambda: client.menu_for([path], wait=3600)) is None
    assert returns_at_once(lambda: client.submit("overlay_get_root_share")) is False


def test_an_agent_that_dies_takes_its_emblems_and_one_that_hangs_costs_no_wait(agent, overlay):
    (path,) = synced(agent, "a.txt")
    client = overlay(agent.process.socket_path)
    eventually(lambda: emblem(client, path) == "emblem-zarnu-synced", what="the synced emblem")

    # Stopped and not answering: the menu is not waited for beyond what the caller allows,
    # and it is kept (and told of) once the agent answers.
    stop_agent(agent.process.proc.pid)
    try:
        assert returns_at_once(lambda: client.menu_for([path], wait=0.2)) is None
        assert emblem(client, path) == "emblem-zarnu-synced"  # from the cache, the agent is not asked
    finally:
        os.kill(agent.process.proc.pid, signal.SIGCONT)
    eventually(lambda: client.calls.menus == [[path]], what="the late menu to be told of")
    eventually(lambda: [entry.title for entry in client.menu_for([path], wait=5) or []][:1] == ["Copy public link"],
               what="the menu")

    # Killed: the session ends, every status goes, and nothing is asked of a dead socket.
    resets = client.calls.resets
    agent.stop(signal.SIGKILL)
    eventually(lambda: not client.connected and client.calls.resets > resets, what="the end of the session")
    assert emblem(client, path) is None
    assert returns_at_once(lambda: client.menu_for([path], wait=3600)) is None

    # A new agent on the same socket: the client finds it by itself and the emblem comes back.
    agent.process = AgentProcess(agent.data, agent.home).start()
    eventually(lambda: emblem(client, path) == "emblem-zarnu-synced", what="the emblem after the restart")


def run_main_loop_until(check, what, timeout=60):
    """Runs this thread's GLib main loop (as a file manager does) until `check()` holds."""
    from gi.repository import GLib
    loop, state = GLib.MainLoop(), {"ok": False}

    def poll():
        state["ok"] = bool(check())
        if state["ok"]:
            loop.quit()
        return not state["ok"]

    GLib.timeout_add(50, poll)
    guard = GLib.timeout_add_seconds(timeout, loop.quit)
    loop.run()
    if state["ok"]:
        GLib.source_remove(guard)
    assert state["ok"], f"timed out waiting for {what}"


def test_in_the_file_managers_main_loop(agent):
    """The same client on GLib watches (the extension's way): badges, a menu waited for on the main
    loop's own thread, a stuck agent costing no more than the wait, a dead one taking the badges."""
    pytest.importorskip("gi", reason="needs the Debian package python3-gi")
    (path,) = synced(agent, "a.txt")
    resets = []
    client = zarnu_overlay.AgentClient(agent.process.socket_path, on_reset=lambda: resets.append(1),
                                       loop=zarnu_overlay.GLibLoop()).start()
    try:
        run_main_loop_until(lambda: emblem(client, path) == "emblem-zarnu-synced", "the synced emblem")
        assert [entry.title for entry in client.menu_for([path], wait=30)] == ["Copy public link", "Show in cloud"]

        stop_agent(agent.process.proc.pid)
        try:
            assert client.menu_for([path, str(agent.root)], wait=0.2) is None
        finally:
            os.kill(agent.process.proc.pid, signal.SIGCONT)
        run_main_loop_until(lambda: client.menu_for([path, str(agent.root)]) is not None, "the late menu")

        before = len(resets)
        agent.stop(signal.SIGKILL)
        run_main_loop_until(lambda: len(resets) > before and not client.connected, "the end of the session")
        assert emblem(client, path) is None
        assert returns_at_once(lambda: client.menu_for([path], wait=3600)) is None
    finally:
        client.stop()
