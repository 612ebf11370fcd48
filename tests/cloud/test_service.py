"""The command line, TLS, signals and the build-slot service."""

import json
import signal
import ssl
import urllib.error
import urllib.request

import pytest

from cloudclient import CloudClient
from cloudservice import CloudProcess, add_user, run_cloud


def test_plain_http_is_refused_off_loopback(tmp_path):
    result = run_cloud("serve", "--data", tmp_path, "--listen", "0.0.0.0:0", "--http", check=False)
    assert result.returncode != 0 and "0.0.0.0" in result.stderr and "--http" in result.stderr
    result = run_cloud("serve", "--data", tmp_path, "--listen", "127.0.0.1:notaport", check=False)
    assert result.returncode == 2 and "notaport" in result.stderr
    help_text = run_cloud("--help").stdout
    assert "serve" in help_text and "--self-signed" in help_text and "user add" in help_text
    result = run_cloud("user", "add", "bad name!", "--data", tmp_path, stdin="pw\n", check=False)
    assert result.returncode != 0 and "bad name!" in result.stderr


def test_sigterm_and_sigint_stop_cleanly(tmp_path):
    for sig in (signal.SIGTERM, signal.SIGINT):
        proc = CloudProcess(tmp_path / sig.name).start()
        assert proc.stop(sig) == 0


def test_self_signed_https_verifies_with_its_certificate(tmp_path):
    proc = CloudProcess(tmp_path / "tls", "--listen", "127.0.0.1:0", "--self-signed").start()
    try:
        assert proc.url.startswith("https://127.0.0.1:")
        cert = proc.data_dir / "cert.pem"
        assert (proc.data_dir / "key.pem").stat().st_mode & 0o077 == 0
        add_user(proc.data_dir, "tls-user", "pw")
        client = CloudClient(proc.url, cafile=str(cert))
        assert client.login("tls-user", "pw")["usernames"] == ["tls-user"]
        assert client.list("/")["entries"][0]["path"] == "/"
        # The certificate names localhost too.
        by_name = CloudClient(proc.url.replace("127.0.0.1", "localhost"), cafile=str(cert))
        assert by_name.get_json("/api/v1/info", auth=False)["service"] == "zarnu-cloud"
        with pytest.raises(ssl.SSLCertVerificationError):
            CloudClient(proc.url).get_json("/api/v1/info", auth=False)
        # Part files go through the cipher (read off the network threads), in parts
        # downloads and in a public link's stream alike.
        data = bytes(range(256)) * 6000
        client.put_file("/tls.bin", data, part_size=300000)
        assert client.get_file("/tls.bin") == data
        link = client.call("links/create", {"paths": ["/tls.bin"]})["link"]
        assert link.startswith("https://")
        status, _, body = CloudClient(proc.url, cafile=str(cert)).request(
            "GET", link[link.index("/public/"):], auth=False)
        assert status == 200 and body == data
    finally:
        proc.stop()
    # The certificate is kept across restarts.
    before = cert.read_bytes()
    proc.start()
    proc.stop()
    assert cert.read_bytes() == before


def post(url, body, token=None):
    return answer(urllib.request.Request(url, data=body, method="POST"), token)


def get(url, token=None):
    return answer(urllib.request.Request(url), token)


def answer(req, token):
    """(status, JSON body) of a request, error answers included."""
    if token:
        req.add_header("Authorization", "Bearer " + token)
    try:
        with urllib.request.urlopen(req, timeout=30) as resp:
            return resp.status, json.loads(resp.read())
    except urllib.error.HTTPError as e:
        return e.code, json.loads(e.read())


def test_build_slots_belong_to_build_accounts(cloud_factory):
    proc = cloud_factory()
    slots = proc.url + "buildslots/slots/"
    add_user(proc.data_dir, "builder", "pw")
    run_cloud("user", "set", "builder", "--build", "--data", proc.data_dir)
    run_cloud("user", "add", "builder2", "--build", "--data", proc.data_dir, stdin="pw\n")
    add_user(proc.data_dir, "plain", "pw")
    assert run_cloud("user", "list", "--data", proc.data_dir).stdout.split("\n") == [
        "builder build", "builder2 build", "plain", ""]
    tokens = {}
    for name in ("builder", "builder2", "plain"):
        tokens[name] = proc.client().login(name, "pw")["token"]

    first = {"platforms": {"linux": {"stable": {"download_token": "t1", "version": "1.0"}}}}
    second = {"platforms": {"linux": {"beta": {"download_token": "t2", "version": "1.1"}},
                            "mac": {"stable": {"download_token": "t3", "version": "1.0"}}}}
    # Nobody without a build account reads or writes slots, whatever its address.
    for token, status in [(None, 401), ("0" * 64, 401), (tokens["plain"], 403), (proc.operator_token(), 401)]:
        assert post(slots, json.dumps(first).encode(), token)[0] == status
        answer = get(slots, token)
        assert answer[0] == status and answer[1]["result"] == "error" and answer[1]["error"]

    builder = tokens["builder"]
    assert post(slots, json.dumps(first).encode(), builder) == (200, {"result": "ok", "error": ""})
    assert post(slots, json.dumps(second).encode(), builder)[1]["result"] == "ok"
    status, stored = get(slots, builder)
    assert status == 200
    assert stored["platforms"]["linux"] == {**first["platforms"]["linux"], **second["platforms"]["linux"]}
    assert stored["platforms"]["mac"] == second["platforms"]["mac"]
    for bad in [b"not json", b"[]", b'{"platforms": 3}', b'{"platforms": {"linux": {"s": {"version": "1"}}}}']:
        status, answer = post(slots, bad, builder)
        assert status == 400 and answer["result"] == "error" and answer["error"]
    assert get(slots, builder) == (200, stored)

    # Another build account has slots of its own: it neither sees nor replaces these.
    other = tokens["builder2"]
    assert get(slots, other) == (200, {"platforms": {}})
    assert post(slots, json.dumps({"platforms": {"linux": {"stable": {"download_token": "x", "version": "9"}}}})
                .encode(), other)[0] == 200
    assert get(slots, builder) == (200, stored)

    # Taking the role away closes the slots at once, for tokens already issued too.
    run_cloud("user", "set", "builder", "--no-build", "--data", proc.data_dir)
    assert get(slots, builder)[0] == 403
    result = run_cloud("user", "set", "builder", "--data", proc.data_dir, check=False)
    assert result.returncode == 2 and "--build" in result.stderr
