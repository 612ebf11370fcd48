"""The agent's public links and menu commands, against the real
agent linked to the real zarnu-cloud."""
import urllib.request

import pytest

from conftest import cloud_tree, eventually, write


def error_of(conn, method, **params):
    reply = conn.request(method, **params)
    assert "error" in reply, reply
    return reply["error"]


@pytest.fixture
def synced(agent, client):
    write(agent.root / "shared.txt", b"bytes anyone with the link may fetch")
    eventually(lambda: "shared.txt" in cloud_tree(client), what="the file to reach the cloud")
    return agent.root / "shared.txt"


def test_links_serve_the_file_and_commands_answer_with_them(agent, synced):
    conn = agent.connect()
    link = conn.result("overlay_get_link", file_paths=[str(synced)], flags=0)["link_url"]
    with urllib.request.urlopen(link, timeout=30) as answer:
        assert answer.read() == synced.read_bytes()
    copied = conn.result("overlay_request_ui", file_path=str(synced), ui_command=1, ui_command_arg={})
    assert copied["link_url"].startswith(link.rsplit("/", 1)[0])
    assert f"Public link for {synced}: {copied['link_url']}" in agent.log()
    missing = error_of(conn, "overlay_get_link", file_paths=[str(agent.root / "not-synced-yet.txt")], flags=0)
    assert missing["code"] == 174 and str(agent.root / "not-synced-yet.txt") in missing["info"]
    assert error_of(conn, "overlay_request_ui", file_path=str(synced), ui_command=99, ui_command_arg={})["code"] == 228
    assert error_of(conn, "overlay_leave_share", share_path=str(agent.root))["code"] == 175
    assert error_of(conn, "overlay_leave_share", share_path=str(agent.root / "sub"))["code"] == 172
    conn.close()


def test_status_details_show_the_menu_descriptions(agent, synced, zarnucmd):
    conn = agent.connect()
    descriptions = [m["description"] for m in conn.result("overlay_get_menu", file_paths=[str(synced)])["menus"]]
    conn.close()
    r = zarnucmd("Overlay", "status", "-d", "shared.txt")
    lines = r.stdout.splitlines()
    row = next(i for i, line in enumerate(lines) if line.startswith("shared.txt"))
    indent = " " * (len("shared.txt") + 8)
    assert lines[row + 1:row + 1 + len(descriptions)] == [indent + d for d in descriptions]
    assert lines[row + 1 + len(descriptions)] == ""
