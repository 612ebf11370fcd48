"""The part store as the service runs it: a damaged part is moved aside and repaired by
the next upload of its bytes, an upload does the same work whether or not another
account stored the bytes before, quotas refuse what would not fit, unused parts are
collected, and a full disk answers its own code with nothing half-stored."""

import os
import sqlite3
import time

import pytest

from cloudclient import CloudError, fingerprint
from cloudservice import CloudProcess, add_user, run_cloud
from small_disk import small_tmpfs

PASSWORD = "correct horse"
DAY = 24 * 3600


def part_path(proc, fp):
    return proc.data_dir / "parts" / fp[:2] / fp


def logged_in(proc, name):
    client = proc.client()
    client.login(name, PASSWORD)
    return client


@pytest.fixture
def service(cloud_factory, tmp_path):
    """A service with the accounts alice and bob."""
    data = tmp_path / "data"
    for name in ("alice", "bob"):
        add_user(data, name, PASSWORD)
    return cloud_factory(data)


def test_damaged_part_is_moved_aside_and_the_next_upload_repairs_it(service):
    alice = logged_in(service, "alice")
    good = os.urandom(200_000)
    fp = fingerprint(good)
    alice.upload([good])
    entry = alice.create("/photo.jpg", [good])

    # The disk flips a bit; the part keeps its check sum attribute.
    with open(part_path(service, fp), "r+b") as f:
        f.seek(100_000)
        byte = f.read(1)
        f.seek(100_000)
        f.write(bytes([byte[0] ^ 0x40]))
    [(_, status, data)] = alice.download(entry["id"], [fp])
    assert (status, data) == ("missing", b"")
    assert not part_path(service, fp).exists()
    assert [p.name.split(".")[0] for p in (service.data_dir / "parts" / "quarantine").iterdir()] == [fp]

    # The account still holds the part, but is asked for its bytes again.
    assert alice.missing([fp]) == [fp]
    alice.upload([good])
    assert alice.missing([fp]) == []
    [(_, status, data)] = alice.download(entry["id"], [fp])
    assert (status, data) == ("ok", good)


def test_an_upload_rewrites_a_part_another_account_already_stored(service):
    # The work (and so the time) of an upload does not depend on whether anybody stored
    # the bytes before: the part file is written, synced and put in place again.
    alice, bob = logged_in(service, "alice"), logged_in(service, "bob")
    shared = os.urandom(50_000)
    fp = fingerprint(shared)
    alice.upload([shared])
    first = os.stat(part_path(service, fp)).st_ino
    assert bob.missing([fp]) == [fp]
    assert bob.upload([shared]) == {"received": 1}
    assert os.stat(part_path(service, fp)).st_ino != first
    assert part_path(service, fp).read_bytes() == shared
    assert bob.missing([fp]) == [] and alice.missing([fp]) == []


def test_quota_refuses_what_would_not_fit_and_credits_nothing(cloud_factory, tmp_path):
    data = tmp_path / "data"
    add_user(data, "alice", PASSWORD)
    assert "300000 bytes" in run_cloud("user", "quota", "alice", "300000", "--data", data).stdout
    assert run_cloud("user", "quota", "alice", "lots", "--data", data, check=False).returncode == 2
    assert run_cloud("user", "quota", "nobody", "1", "--data", data, check=False).returncode == 1
    proc = cloud_factory(data)
    alice = logged_in(proc, "alice")

    first = os.urandom(200_000)
    alice.upload([first])
    more = [os.urandom(60_000), os.urandom(60_000)]
    with pytest.raises(CloudError) as e:
        alice.upload(more)
    assert (e.value.status, e.value.code) == (507, 210)
    assert "quota" in e.value.message
    fps = [fingerprint(p) for p in more]
    assert alice.missing(fps) == fps
    # A part the account already holds does not count again; one that fits is taken.
    alice.upload([first, more[0]])
    assert alice.missing(fps) == fps[1:]
    alice.create("/kept.bin", [first, more[0]])

    # Lifted while the service runs: the next upload sees it.
    run_cloud("user", "quota", "alice", "none", "--data", data)
    alice.upload([more[1]])
    assert alice.missing(fps) == []


def test_unused_parts_are_collected_when_the_service_starts(cloud_factory, tmp_path):
    data = tmp_path / "data"
    add_user(data, "alice", PASSWORD)
    proc = cloud_factory(data)
    alice = logged_in(proc, "alice")
    used, abandoned = os.urandom(30_000), os.urandom(30_000)
    alice.upload([used, abandoned])
    entry = alice.create("/used.bin", [used])
    proc.stop()

    # A week passes: the upload that never became a file lapses. Part files nobody holds
    # (left by a crash between storing a part and recording it) go once they are an hour
    # old; a recent one may belong to an upload in flight and stays.
    old = time.time() - 8 * DAY
    db = sqlite3.connect(data / "meta.sqlite")
    with db:
        db.execute("UPDATE held_parts SET since = ?", (int(old),))
    db.close()
    orphan_old, orphan_new = os.urandom(1000), os.urandom(1000)
    for bytes_, when in ((orphan_old, old), (orphan_new, None)):
        path = part_path(proc, fingerprint(bytes_))
        path.parent.mkdir(exist_ok=True)
        path.write_bytes(bytes_)
        if when:
            os.utime(path, (when, when))
    for bytes_ in (used, abandoned):
        os.utime(part_path(proc, fingerprint(bytes_)), (old, old))

    proc = cloud_factory(data)
    assert "collected 2 unused parts (1 lapsed holds)" in proc.log()
    assert part_path(proc, fingerprint(used)).exists()
    assert not part_path(proc, fingerprint(abandoned)).exists()
    assert not part_path(proc, fingerprint(orphan_old)).exists()
    assert part_path(proc, fingerprint(orphan_new)).exists()
    alice = logged_in(proc, "alice")
    assert alice.missing([fingerprint(used), fingerprint(abandoned)]) == [fingerprint(abandoned)]
    [(_, status, data_)] = alice.download(entry["id"], [fingerprint(used)])
    assert (status, data_) == ("ok", used)


@pytest.fixture
def small_disk(tmp_path):
    """A 4 MiB tmpfs for the data folder."""
    with small_tmpfs(tmp_path / "small", "4m") as mount_point:
        yield mount_point


def test_full_disk_answers_its_own_code_and_stores_nothing_half(small_disk):
    data = small_disk / "data"
    add_user(data, "alice", PASSWORD)
    proc = CloudProcess(data).start()
    try:
        alice = logged_in(proc, "alice")
        stored, refused = [], None
        for _ in range(8):  # 8 MiB of parts for a 4 MiB disk
            part = os.urandom(1024 * 1024)
            try:
                alice.upload([part])
            except CloudError as e:
                refused = (e.status, e.code, part)
                break
            stored.append(part)
        assert refused, "the disk never filled"
        status, code, part = refused
        assert (status, code) == (507, 211)
        assert alice.missing([fingerprint(part)]) == [fingerprint(part)]
        assert list((data / "parts" / "tmp").iterdir()) == []
        # What was acknowledged before is whole, and the service still answers.
        assert alice.missing([fingerprint(p) for p in stored]) == []
        for p in stored:
            assert part_path(proc, fingerprint(p)).read_bytes() == p
        assert [e for e in alice.list("/")["entries"] if not e["is_folder"]] == []
    finally:
        proc.kill()
