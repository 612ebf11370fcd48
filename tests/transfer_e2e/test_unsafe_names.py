"""A listing whose names would place files outside the target folder is refused.

The real service never lists such names, so a small stand-in answers login and list
with a hostile entry; "get -r" must refuse it and write nothing outside the target."""

import json
import os
import threading
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

import pytest


def folder(path, contained=1):
    return {"id": 1, "path": path, "is_folder": True, "attributes": 16, "size": 0, "contained": contained,
            "parts": []}


def file(path):
    return {"id": 2, "path": path, "is_folder": False, "attributes": 0, "size": 3, "part_count": 1,
            "parts": [{"fingerprint": "0" * 72, "size": 3, "offset": 0}]}


class HostileCloud(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    entries = []
    parts_requests = 0

    def do_POST(self):
        self.rfile.read(int(self.headers.get("Content-Length", 0)))
        if self.path == "/api/v1/login":
            answer = {"usernames": ["mallory"], "token": "ab" * 32, "account_id": "1", "display_name": "mallory"}
        elif self.path == "/api/v1/list":
            answer = {"entries": HostileCloud.entries, "more": False, "cursor": ""}
        else:
            HostileCloud.parts_requests += 1
            answer = {"error": {"code": 55, "message": "not here"}}
        body = json.dumps(answer).encode()
        self.send_response(200 if "error" not in answer else 400)
        self.send_header("Content-Type", "application/json")
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *args):
        pass


@pytest.fixture
def hostile_cloud():
    server = ThreadingHTTPServer(("127.0.0.1", 0), HostileCloud)
    thread = threading.Thread(target=server.serve_forever, daemon=True)
    thread.start()
    yield f"http://127.0.0.1:{server.server_address[1]}/"
    server.shutdown()
    server.server_close()
    thread.join()


@pytest.mark.parametrize("entries", [
    [folder("/f"), file("/f/../../escaped")],
    [folder("/f"), folder("/f/..", contained=0)],
    [folder("/f/.."), file("/f/../escaped")],
], ids=["dot-dot-in-file", "dot-dot-folder", "dot-dot-head"])
def test_get_refuses_names_outside_target(zarnucmd, hostile_cloud, tmp_path, entries):
    HostileCloud.entries = entries
    HostileCloud.parts_requests = 0
    target = tmp_path / "a" / "b" / "target"
    target.mkdir(parents=True)
    result = zarnucmd.run("Cloud", "get", "/f", target, "-r", "-username=mallory", "-password=x",
                          "-cloudAddress=" + hostile_cloud)
    assert result.returncode == 55, result.stderr
    assert "Refusing cloud " in result.stderr
    assert HostileCloud.parts_requests == 0
    # Nothing appeared anywhere above or beside the target.
    assert sorted(os.listdir(tmp_path / "a")) == ["b"]
    assert sorted(os.listdir(tmp_path / "a" / "b")) == ["target"]
