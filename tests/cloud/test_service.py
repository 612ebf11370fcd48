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
        link = client.call("links/create", {"paths": ["/"]})["link"]
        assert link.startswith("https://")
    finally:
        proc.stop()
    # The certificate is kept across restarts.
    before = cert.read_bytes()
    proc.start()
    proc.stop()
    assert cert.read_bytes() == before


def post(url, body, token=None):
    req = urllib.request.Request(url, data=body, method="POST")
    if token:
        req.add_header("Authorization", "Bearer " + token)
    try:
        with urllib.request.urlopen(req, timeout=30) as resp:
            return resp.status, json.loads(resp.read())
    except urllib.error.HTTPError as e:
        return e.code, json.loads(e.read())


def test_build_slots_merge(cloud_url):
    slots = cloud_url + "buildslots/slots/"
    first = {"platforms": {"linux": {"stable": {"download_token": "t1", "version": "1.0"}}}}
    second = {"platforms": {"linux": {"beta": {"download_token": "t2", "version": "1.1"}},
                            "mac": {"stable": {"download_token": "t3", "version": "1.0"}}}}
    assert post(slots, json.dumps(first).encode()) == (200, {"result": "ok", "error": ""})
    assert post(slots, json.dumps(second).encode())[1]["result"] == "ok"
    with urllib.request.urlopen(slots, timeout=30) as resp:
        stored = json.loads(resp.read())
    assert stored["platforms"]["linux"] == {**first["platforms"]["linux"], **second["platforms"]["linux"]}
    assert stored["platforms"]["mac"] == second["platforms"]["mac"]

    for bad in [b"not json", b"[]", b'{"platforms": 3}', b'{"platforms": {"linux": {"s": {"version": "1"}}}}']:
        status, answer = post(slots, bad)
        assert status == 400 and answer["result"] == "error" and answer["error"]
    with urllib.request.urlopen(slots, timeout=30) as resp:
        assert json.loads(resp.read()) == stored
