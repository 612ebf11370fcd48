"""Folders, soft deletion, undeletion and paths that try to leave the account."""

import json

import pytest

from cloudclient import CloudError

ALL_BITS = 2**64 - 1


def test_folders_and_files_keep_their_places(new_account):
    alice = new_account()
    made = alice.call("folders/create", {"path": "/a/b/c"})["entry"]
    assert made["path"] == "/a/b/c" and made["is_folder"]
    assert alice.call("folders/create", {"path": "/a/b/c"})["entry"]["id"] == made["id"]
    first = alice.put_file("/a/f.txt", b"one")
    second = alice.put_file("/a/f.txt", b"two")
    assert second["id"] != first["id"]
    assert alice.get_file("/a/f.txt") == b"two"
    for op, fields, code in [("folders/create", {"path": "/a/f.txt"}, 172),
                             ("folders/create", {"path": "/a/f.txt/x"}, 172),
                             ("files/create", {"path": "/a/b", "parts": []}, 181),
                             ("files/create", {"path": "/", "parts": []}, 181),
                             ("files/create", {"path": "/a/f.txt/y", "parts": []}, 172),
                             ("delete", {"path": "/a/missing"}, 174)]:
        with pytest.raises(CloudError) as e:
            alice.call(op, fields)
        assert e.value.code == code, (op, fields)


def test_delete_and_undelete(new_account):
    alice = new_account()
    alice.put_file("/p/q/one", b"1")
    alice.put_file("/p/two", b"2")
    alice.call("delete", {"path": "/p/two"})
    gone = alice.call("delete", {"path": "/p"})
    assert gone["deleted"] == 3 and gone["entry"]["deleted"] > 0
    assert alice.list("/p")["entries"] == []
    with pytest.raises(CloudError) as e:
        alice.call("delete", {"path": "/p"})
    assert e.value.code == 174
    with pytest.raises(CloudError) as e:
        alice.call("undelete", {"path": "/p", "deleted": gone["entry"]["deleted"] + 1})
    assert e.value.code == 174

    back = alice.call("undelete", {"path": "/p", "deleted": ALL_BITS})
    assert back["restored"] == 3
    assert [e["path"] for e in alice.list("/p", recurse=True)["entries"]] == ["/p", "/p/q", "/p/q/one"]
    assert alice.get_file("/p/q/one") == b"1"

    # Undeleting a child of a deleted folder brings back the folder on its way.
    alice.call("delete", {"path": "/p"})
    alice.call("undelete", {"path": "/p/two"})
    assert [e["path"] for e in alice.list("/p")["entries"]] == ["/p", "/p/two"]


def test_paths_that_climb_out_are_refused(new_account):
    alice = new_account()
    alice.put_file("/inside", b"x")
    bad_paths = ["/../etc/passwd", "/a/../../b", "/./x", "/a//b", "/a/", "a/b", "", "/a\\..\\b",
                 "/a\u0000b", "/a\nb", "/\udcff"]
    for path in bad_paths:
        for op, fields in [("folders/create", {"path": path}),
                           ("files/create", {"path": path, "parts": []}),
                           ("list", {"path": path}),
                           ("delete", {"path": path}),
                           ("links/create", {"paths": [path]})]:
            status, _, data = alice.request("POST", "/api/v1/" + op, json.dumps(fields).encode())
            assert status == 400 and b'"code":55' in data, (op, path, data)
    status, _, data = alice.request("POST", "/api/v1/folders/create", b'{"path": "/\xff\xfe"}')
    assert status == 400 and b'"code":55' in data
    assert [e["path"] for e in alice.list("/", recurse=True)["entries"]] == ["/", "/inside"]
