"""Part upload, verification, ownership, file creation and part download."""

import os

import pytest

from cloudclient import CloudError, fingerprint


def test_upload_then_create_then_download(new_account, cloud_server):
    alice = new_account()
    parts = [os.urandom(1024 * 1024), os.urandom(1000), b"tail"]
    fps = [fingerprint(p) for p in parts]
    assert alice.missing(fps + fps[:1]) == fps  # each once, in order
    before = alice.stats()
    assert alice.upload(parts) == {"received": 3}
    after = alice.stats()
    assert after["parts_received"] - before["parts_received"] == 3
    assert after["bytes_received"] - before["bytes_received"] == sum(map(len, parts))
    assert alice.missing(fps) == []

    entry = alice.create("/big.bin", parts + parts[:1], modified=1600000000)
    assert entry["size"] == 2 * len(parts[0]) + 1004 and entry["modified"] == 1600000000
    got = alice.download(entry["id"], fps + ["0" * 72])
    assert [(s, d) for _, s, d in got] == [("ok", parts[0]), ("ok", parts[1]), ("ok", parts[2]), ("missing", b"")]
    assert alice.get_file("/big.bin") == b"".join(parts + parts[:1])


def test_corrupted_part_refuses_the_whole_batch(new_account):
    alice = new_account()
    good, bad = os.urandom(5000), os.urandom(5000)
    manifest = [{"fingerprint": fingerprint(good), "size": 5000},
                {"fingerprint": fingerprint(bad), "size": 5000}]
    corrupted = bad[:-1] + bytes([bad[-1] ^ 1])
    with pytest.raises(CloudError) as e:
        alice.upload([good, corrupted], manifest)
    assert (e.value.status, e.value.code) == (400, 169)
    assert fingerprint(bad) in e.value.message
    assert alice.missing([fingerprint(good), fingerprint(bad)]) == [fingerprint(good), fingerprint(bad)]
    with pytest.raises(CloudError) as e:
        alice.upload([good], [{"fingerprint": fingerprint(good), "size": 4999}])
    assert e.value.code == 55


def test_create_with_a_missing_part_creates_nothing(new_account):
    alice = new_account()
    have, lack = os.urandom(100), os.urandom(100)
    alice.upload([have])
    with pytest.raises(CloudError) as e:
        alice.create("/new/folder/file", [have, lack, lack])
    assert (e.value.status, e.value.code) == (409, 162)
    assert e.value.body["missing"] == [fingerprint(lack)]  # once
    assert alice.list("/new", include_deleted=True)["entries"] == []
    empty = alice.create("/empty", [])
    assert empty["size"] == 0 and empty["part_count"] == 0


def test_accounts_never_share_parts(new_account):
    alice, bob = new_account(), new_account()
    secret = os.urandom(4096)
    entry = alice.put_file("/secret", secret)
    assert bob.missing([fingerprint(secret)]) == [fingerprint(secret)]
    with pytest.raises(CloudError) as e:
        bob.create("/stolen", [secret])
    assert e.value.code == 162
    with pytest.raises(CloudError) as e:
        bob.download(entry["id"], [fingerprint(secret)])
    assert e.value.code == 174
    mine = bob.put_file("/mine", b"bob's own")
    assert bob.download(mine["id"], [fingerprint(secret)])[0][1] == "missing"
    # Sending the bytes once makes the part Bob's too.
    bob.upload([secret])
    assert bob.create("/now-mine", [secret])["size"] == 4096


def test_a_download_of_more_than_a_hundred_parts_is_refused(new_account):
    # The upload and body limits are checked in PartBatch's unit test and test_limits.
    with pytest.raises(CloudError) as e:
        new_account().download(1, ["0" * 72] * 101)
    assert e.value.code == 175
