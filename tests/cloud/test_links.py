"""Public links: anyone holding the link gets the bytes, nobody else does."""

import json
import urllib.error
import urllib.request

import pytest

from cloudclient import CloudError


def fetch(url):
    try:
        with urllib.request.urlopen(url, timeout=30) as resp:
            return resp.status, dict(resp.headers), resp.read()
    except urllib.error.HTTPError as e:
        return e.code, dict(e.headers), e.read()


def test_link_to_one_file_serves_its_bytes(new_account, cloud_server):
    alice = new_account()
    data = bytes(range(256)) * 9000  # about 2.2 MiB: several parts
    alice.put_file("/share/report v1.pdf", data)
    link = alice.call("links/create", {"paths": ["/share/report v1.pdf"]})
    assert len(link["token"]) >= 32 and link["link"].endswith("/public/" + link["token"])
    assert link["link"].startswith(cloud_server.url.rstrip("/"))

    status, headers, body = fetch(link["link"])
    assert status == 200 and body == data
    assert headers["Content-Disposition"] == "attachment; filename*=UTF-8''report%20v1.pdf"
    assert link["token"] not in cloud_server.log()

    alice.put_file("/share/report v1.pdf", b"replaced")  # a link follows its path
    assert fetch(link["link"])[2] == b"replaced"
    alice.call("delete", {"path": "/share/report v1.pdf"})
    status, _, body = fetch(link["link"])
    assert status == 404 and json.loads(body)["error"]["code"] == 174


def test_link_to_a_folder_lists_files_with_their_own_links(new_account, cloud_server):
    alice = new_account()
    alice.put_file("/pics/a.jpg", b"AAAA")
    alice.put_file("/pics/deep/b.jpg", b"BB")
    alice.put_file("/private.txt", b"no")
    link = alice.call("links/create", {"paths": ["/pics"]})
    status, _, body = fetch(link["link"])
    listing = json.loads(body)["entries"]
    assert status == 200 and [e["path"] for e in listing] == ["/pics/a.jpg", "/pics/deep/b.jpg"]
    base = cloud_server.url.rstrip("/")
    assert [fetch(base + e["url"])[2] for e in listing] == [b"AAAA", b"BB"]

    private_id = alice.list("/private.txt")["entries"][0]["id"]
    assert fetch(f"{base}/public/{link['token']}/file/{private_id}")[0] == 404
    assert fetch(f"{base}/public/{'0' * 32}")[0] == 404
    with pytest.raises(CloudError) as e:
        alice.call("links/create", {"paths": ["/pics", "/not-there"]})
    assert e.value.code == 174


def test_link_file_urls_reach_only_live_files_below_the_link(new_account, cloud_server):
    alice = new_account()
    old = alice.put_file("/pics/a.jpg", b"old")
    alice.put_file("/pics/a.jpg", b"new")
    gone = alice.put_file("/pics/sub/gone.jpg", b"gone")
    alice.call("delete", {"path": "/pics/sub"})
    beside = alice.put_file("/pics-not/x.jpg", b"beside")  # shares the folder name's prefix
    link = alice.call("links/create", {"paths": ["/pics"]})
    base = f"{cloud_server.url.rstrip('/')}/public/{link['token']}/file/"
    [listed] = json.loads(fetch(link["link"])[2])["entries"]
    assert fetch(cloud_server.url.rstrip("/") + listed["url"])[2] == b"new"
    # An earlier version, a deleted file and a file outside the linked folder: 174.
    for entry in (old, gone, beside):
        status, _, body = fetch(base + str(entry["id"]))
        assert status == 404 and json.loads(body)["error"]["code"] == 174
    alice.call("delete", {"path": "/pics"})
    assert fetch(cloud_server.url.rstrip("/") + listed["url"])[0] == 404
