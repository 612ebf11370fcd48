"""What one client cannot do to the others: bodies refused before they are read, slow
senders cut off, the connection cap. Raw sockets, so that the requests can be as
broken or as slow as an attacker's."""

import json
import select
import socket
import threading
import time
import urllib.parse

from cloudservice import CloudProcess

# How long the tests wait for the service to react; the service's own limits that the
# tests meet are shorter (10 s), and its idle time-out (60 s) longer, so this only ends a
# test that is failing.
PATIENCE = 30


def connect(url):
    parts = urllib.parse.urlsplit(url)
    sock = socket.create_connection((parts.hostname, parts.port), timeout=PATIENCE)
    return sock


def read_answer(sock):
    """Reads one answer (head and Content-Length body); returns (status, headers, body),
    or None when the service closed the connection without answering."""
    data = b""
    while b"\r\n\r\n" not in data:
        chunk = sock.recv(65536)
        if not chunk:
            return None
        data += chunk
    head, _, body = data.partition(b"\r\n\r\n")
    lines = head.decode().split("\r\n")
    headers = {k.lower(): v.strip() for k, _, v in (line.partition(":") for line in lines[1:])}
    length = int(headers.get("content-length", 0))
    while len(body) < length:
        chunk = sock.recv(65536)
        if not chunk:
            break
        body += chunk
    return int(lines[0].split()[1]), headers, body


def closed_by_service(sock):
    """Waits until the service closes the connection, ignoring any answer before."""
    while True:
        try:
            if not sock.recv(65536):
                return True
        except ConnectionResetError:
            return True


def head(path, token=None, length=None, extra=""):
    lines = [f"POST {path} HTTP/1.1", "Host: test"]
    if token:
        lines.append("Authorization: Bearer " + token)
    if length is not None:
        lines.append(f"Content-Length: {length}")
    return ("\r\n".join(lines) + "\r\n" + extra + "\r\n").encode()


def test_credential_is_checked_before_a_large_body(cloud_server, new_account):
    alice = new_account()
    upload = "/api/v1/parts/upload"
    # A stranger announcing a batch of parts is refused at once: the service answers
    # without waiting for a byte of the body (none is ever sent).
    for token in (None, "0" * 64):
        with connect(cloud_server.url) as sock:
            sock.sendall(head(upload, token, 5 * 1024 * 1024, "Expect: 100-continue\r\n"))
            status, _, body = read_answer(sock)
            assert status == 401 and json.loads(body)["error"]["code"] == 177
    # The same with a valid token waits for the body (100 Continue first), then takes it.
    part = b"x" * 100000
    body = alice.upload_body([part])
    with connect(cloud_server.url) as sock:
        sock.sendall(head(upload, alice.token, len(body), "Expect: 100-continue\r\n"))
        assert read_answer(sock)[0] == 100
        sock.sendall(body)
        status, _, answer = read_answer(sock)
        assert status == 200 and json.loads(answer) == {"received": 1}

    # A token that was accepted a moment ago and then revoked is refused up front too.
    revoked = alice.token
    alice.call("logout")
    with connect(cloud_server.url) as sock:
        sock.sendall(head(upload, revoked, len(body), "Expect: 100-continue\r\n"))
        status, _, answer = read_answer(sock)
        assert status == 401 and json.loads(answer)["error"]["code"] == 177
    alice.login(alice.name, "correct horse")

    # Each endpoint has its own body limit, enforced before the body is read.
    for path, length in [("/api/v1/login", 65 * 1024), ("/api/v1/list", 1024 * 1024 + 1),
                         (upload, 6 * 1024 * 1024)]:
        with connect(cloud_server.url) as sock:
            sock.sendall(head(path, alice.token, length))
            status, _, answer = read_answer(sock)
            assert status == 413 and json.loads(answer)["error"]["code"] == 175, path


def test_slow_senders_are_cut_off_while_others_are_served(cloud_factory):
    proc = cloud_factory()
    client = proc.account("patient", "pw")
    token = client.token

    # A header that never ends, and a body that trickles in at a few bytes a second.
    loris = connect(proc.url)
    loris.sendall(b"POST /api/v1/list HTTP/1.1\r\nHost: test\r\n")
    trickle = connect(proc.url)
    trickle.sendall(head("/api/v1/parts/upload", token, 1024 * 1024))
    outcome = {}

    def drip():
        try:
            while True:
                trickle.sendall(b"{")
                time.sleep(0.5)
        except OSError:
            outcome["cut"] = True

    dripper = threading.Thread(target=drip, daemon=True)
    dripper.start()
    try:
        # Meanwhile everybody else is served.
        assert client.list("/")["entries"][0]["path"] == "/"
        assert closed_by_service(loris)
        answer = read_answer(trickle)
        assert answer is not None and answer[0] == 408
        assert json.loads(answer[2])["error"]["code"] == 222
        dripper.join(PATIENCE)
        assert outcome.get("cut")
        assert client.list("/")["entries"][0]["path"] == "/"
    finally:
        loris.close()
        trickle.close()


def test_at_the_cap_idle_connections_make_room_and_busy_ones_are_kept(cloud_factory, tmp_path):
    proc = cloud_factory(tmp_path / "capped", "--listen", "127.0.0.1:0", "--http", "--max-connections", "3")
    info = b"GET /api/v1/info HTTP/1.1\r\nHost: test\r\n\r\n"
    # Three kept-alive connections, idle after a request, fill the cap (they would stay
    # open for the 60 s idle time, longer than this test waits); a fourth is served
    # at once, and one idle connection (the one idle longest; which one that is depends
    # on when the service saw each answer leave) is closed to make room. The other two
    # are kept and still served.
    idle = [connect(proc.url) for _ in range(3)]
    for sock in idle:
        sock.sendall(info)
        assert read_answer(sock)[0] == 200
    late = connect(proc.url)
    try:
        late.sendall(info)
        status, _, body = read_answer(late)
        assert status == 200 and json.loads(body)["service"] == "zarnu-cloud"
        readable, _, _ = select.select(idle, [], [], PATIENCE)
        assert len(readable) == 1 and closed_by_service(readable[0])
        for sock in idle:
            if sock is not readable[0]:
                sock.sendall(info)
                assert read_answer(sock)[0] == 200
    finally:
        for sock in idle + [late]:
            sock.close()

    # Three connections in the middle of a request are never closed: a fourth waits
    # until one of them has its answer. (An upload that announced its body is in its
    # request once "100 Continue" came back, and stays so until the body is sent.)
    proc = cloud_factory(tmp_path / "capped-busy", "--listen", "127.0.0.1:0", "--http", "--max-connections", "3")
    client = proc.account("uploader", "pw")
    client.close()
    body = client.upload_body([b"u" * 100000])
    busy = []
    late = None
    try:
        for _ in range(3):
            busy.append(connect(proc.url))
            busy[-1].sendall(head("/api/v1/parts/upload", client.token, len(body), "Expect: 100-continue\r\n"))
            assert read_answer(busy[-1])[0] == 100
        late = connect(proc.url)
        late.sendall(info)
        busy[0].sendall(body)
        assert read_answer(busy[0])[0] == 200
        assert read_answer(late)[0] == 200
        # The log line of an answer follows its sending: wait for the one of the info.
        give_up = time.monotonic() + PATIENCE
        while "GET /api/v1/info 200" not in proc.log():
            assert time.monotonic() < give_up, proc.log()
            select.select([], [], [], 0.05)
        log = proc.log().splitlines()
        served = next(i for i, line in enumerate(log) if line.startswith("GET /api/v1/info 200"))
        assert any(line.startswith("POST /api/v1/parts/upload 200") for line in log[:served]), log
    finally:
        for sock in busy + ([late] if late else []):
            sock.close()


def test_out_of_descriptors_the_service_backs_off_and_recovers(tmp_path):
    # Few descriptors and a cap above them: accepting fails with EMFILE.
    proc = CloudProcess(tmp_path / "starved", "--listen", "127.0.0.1:0", "--http", "--max-connections", "1000",
                        prefix=("prlimit", "--nofile=64:64"))
    proc.start()
    flood = []
    try:
        for _ in range(100):
            flood.append(connect(proc.url))
        probe = connect(proc.url)
        probe.sendall(b"GET /api/v1/info HTTP/1.1\r\nHost: test\r\n\r\n")
        marker = "error: accepting connections: "
        give_up = time.monotonic() + PATIENCE
        while marker not in proc.log():
            assert time.monotonic() < give_up, "the service never reported running out of descriptors"
            # The probe waits behind the flood: the service cannot take it, and says so.
            readable, _, _ = select.select([probe], [], [], 0.1)
            assert not readable, "the probe was answered although descriptors ran out"
        line = next(line for line in proc.log().splitlines() if line.startswith(marker))
        assert "trying again in" in line
        for sock in flood:
            sock.close()
        flood.clear()
        probe.settimeout(PATIENCE)
        status, _, body = read_answer(probe)
        assert status == 200 and json.loads(body)["service"] == "zarnu-cloud"
        probe.close()
        assert proc.client().get_json("/api/v1/info", auth=False)["service"] == "zarnu-cloud"
    finally:
        for sock in flood:
            sock.close()
        proc.stop()
