"""The agent's context menu, public links and menu commands, against the real
agent linked to the real zarnu-cloud."""
import struct
import urllib.request

import pytest

from conftest import cloud_tree, eventually, write

PNG_SIGNATURE = b"\x89PNG\r\n\x1a\n"


def error_of(conn, method, **params):
    reply = conn.request(method, **params)
    assert "error" in reply, reply
    return reply["error"]


@pytest.fixture
def synced(agent, client):
    write(agent.root / "shared.txt", b"bytes anyone with the link may fetch")
    eventually(lambda: "shared.txt" in cloud_tree(client), what="the file to reach the cloud")
    return agent.root / "shared.txt"


def test_menu_items_carry_png_icons_and_refuse_paths_outside_the_root(agent, synced, tmp_path):
    conn = agent.connect()
    menus = conn.result("overlay_get_menu", file_paths=[str(synced)])["menus"]
    attachments = conn.attachments
    assert [m["title"] for m in menus] == ["Copy public link", "Show in cloud"]
    assert len({m["command_id"] for m in menus}) == 2
    for item in menus:
        assert item["flags"] & 1 and item["description"]
        icon = item["avatar"]
        assert icon["mime_type"] == "image/png"
        data = attachments[int(icon["data"].rsplit("-", 1)[1])]
        assert data.startswith(PNG_SIGNATURE)
        length, kind, width, height = struct.unpack(">I4sII", data[8:24])
        assert kind == b"IHDR" and (width, height) == (icon["width"], icon["height"])
    outside = error_of(conn, "overlay_get_menu", file_paths=[str(tmp_path / "elsewhere.txt")])
    assert outside["code"] == 166 and "elsewhere.txt" in outside["info"]
    conn.close()


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
