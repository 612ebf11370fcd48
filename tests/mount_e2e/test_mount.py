"""`zarnucmd Cloud mount` against a real zarnu-cloud: what the volume shows, what it
refuses, its statistics, and how it ends."""
import errno
import hashlib
import os
import random
import re
import signal
import subprocess

import pytest

from conftest import is_mounted

PART = 1 << 20
FILES = {
    "empty.txt": b"",
    "small.txt": b"hello from the cloud\n",
    "odd.bin": random.Random(1).randbytes(3 * PART + 17),
    "exact.bin": random.Random(2).randbytes(2 * PART),
}


@pytest.fixture
def tree(zarnucmd, tmp_path):
    """The cloud folder /docs with the FILES and a sub-folder, put there by zarnucmd."""
    local = tmp_path / "upload"
    local.mkdir()
    for name, data in FILES.items():
        (local / name).write_bytes(data)
    assert zarnucmd.run("Cloud", "mkdir", "/docs/sub").returncode == 0
    for name, folder in [*((name, "/docs/") for name in FILES), ("small.txt", "/docs/sub/")]:
        put = zarnucmd.run("Cloud", "put", local / name, folder)
        assert put.returncode == 0, put.stderr
    return local


def test_the_volume_shows_the_cloud_folder_byte_for_byte(tree, mount):
    run = mount("/docs").mounted()
    point = run.mount_point
    assert sorted(os.listdir(point)) == sorted([*FILES, "sub"])
    assert os.listdir(point / "sub") == ["small.txt"]
    for name, data in FILES.items():
        assert os.stat(point / name).st_size == len(data)
        assert (point / name).read_bytes() == data, name
    # Reads at random offsets, many across part edges.
    data = FILES["odd.bin"]
    rng = random.Random(3)
    with open(point / "odd.bin", "rb", buffering=0) as f:
        for edge in (PART, 2 * PART, 3 * PART):
            for start in (edge - 1, edge - 4096, edge):
                assert os.pread(f.fileno(), 8192, start) == data[start:start + 8192]
        for _ in range(50):
            start = rng.randrange(len(data))
            size = rng.randrange(1, 3 * PART)
            assert os.pread(f.fileno(), size, start) == data[start:start + size]
        assert os.pread(f.fileno(), 10, len(data) + 5) == b""
    with pytest.raises(FileNotFoundError):
        os.stat(point / "missing.txt")


def test_every_change_is_refused_as_read_only(tree, mount):
    point = mount("/docs").mounted().mount_point
    changes = [
        lambda: open(point / "small.txt", "r+b"),
        lambda: open(point / "new.txt", "wb"),
        lambda: os.mkdir(point / "newdir"),
        lambda: os.unlink(point / "small.txt"),
        lambda: os.rmdir(point / "sub"),
        lambda: os.rename(point / "small.txt", point / "moved.txt"),
        lambda: os.chmod(point / "small.txt", 0o666),
        lambda: os.truncate(point / "small.txt", 0),
        lambda: os.setxattr(point / "small.txt", "user.note", b"x"),
    ]
    for change in changes:
        with pytest.raises(OSError) as refused:
            change()
        assert refused.value.errno == errno.EROFS
    assert (point / "small.txt").read_bytes() == FILES["small.txt"]


def last_status(text):
    found = re.findall(r"Cache hits: (\d+) Cache misses: (\d+) Cache size: ([^C]+?) Cache count: (\d+)", text)
    return tuple(int(found[-1][i]) for i in (0, 1, 3)) + (found[-1][2],) if found else None


def test_statistics_show_misses_then_hits(tree, mount):
    run = mount("/docs").mounted()
    run.wait_for(lambda text: last_status(text) == (0, 0, 0, "0 B"), what="an empty cache")
    (run.mount_point / "exact.bin").read_bytes()
    # The first part is a miss; the second is read ahead, so it may be found there.
    run.wait_for(lambda text: (last_status(text) or (0, 0, 0))[2] == 2 and last_status(text)[1] >= 1,
                 what="both parts held after misses")
    _, misses, _, _ = last_status(run.output.decode())
    hits_before = last_status(run.output.decode())[0]
    (run.mount_point / "exact.bin").read_bytes()  # a second open reads the same parts again
    run.wait_for(lambda text: last_status(text)[0] > hits_before, what="hits")
    assert last_status(run.output.decode())[1] == misses, "a second read of the same parts fetches nothing"
    assert last_status(run.output.decode())[3] == "2.00 MB"
    assert "Throughput: " in run.output.decode()


def test_unmounted_from_outside_it_says_so(tree, mount):
    run = mount("/").mounted()
    subprocess.run(["fusermount3", "-u", str(run.mount_point)], check=True)
    code, out, err = run.finish()
    assert code == 0, err
    assert out.endswith("\nDismounted path\n")
    assert out.splitlines()[:2] == ["Logged in as alice",
                                    f"Successfully mounted cloud path / at local path {run.mount_point}"]


def test_sigint_unmounts_and_ends_with_65(tree, mount):
    run = mount("/docs").mounted()
    os.kill(run.proc.pid, signal.SIGINT)
    code, out, err = run.finish()
    assert code == 65
    assert err == "zarnucmd: Termination was requested: process (error 65)\n"
    assert not is_mounted(run.mount_point)


def test_bad_mount_points_and_cloud_folders_are_named(tree, zarnucmd, mount, tmp_path):
    (tmp_path / "full").mkdir()
    (tmp_path / "full" / "keep.txt").write_text("mine")
    (tmp_path / "empty").mkdir()
    cases = [
        (("/docs", tmp_path / "nope"), 25, f"The path does not exist: mount point {tmp_path / 'nope'}"),
        (("/docs", tmp_path / "full"), 55, f"mount point {tmp_path / 'full'} is not empty"),
        (("/nothere", tmp_path / "empty"), 174, "cloud folder /nothere"),
        (("/docs/small.txt", tmp_path / "empty"), 174, "cloud folder /docs/small.txt"),
    ]
    busy = mount("/docs").mounted()
    cases.append((("/docs", busy.mount_point), 55, f"mount point {busy.mount_point} is already a mount point"))
    for args, code, text in cases:
        result = zarnucmd.run("Cloud", "mount", *args)
        assert result.returncode == code, result.stderr
        assert text in result.stderr
    assert (tmp_path / "full" / "keep.txt").read_text() == "mine"


def test_a_damaged_part_fails_that_read_only(tree, mount, cloud):
    data = FILES["odd.bin"]
    second = data[PART:2 * PART]
    name = hashlib.md5(second).hexdigest() + hashlib.sha1(second).hexdigest()
    stored = [p for p in cloud.data_dir.rglob(name)]
    assert stored, "the part is stored under its fingerprint"
    original = stored[0].read_bytes()
    stored[0].write_bytes(b"\0" * len(original))
    run = mount("/docs").mounted()
    with open(run.mount_point / "odd.bin", "rb", buffering=0) as f:
        assert os.pread(f.fileno(), 100, 0) == data[:100], "the good part still reads"
        with pytest.raises(OSError) as failed:
            os.pread(f.fileno(), 100, PART + 10)
        assert failed.value.errno == errno.EIO
        stored[0].write_bytes(original)
        assert os.pread(f.fileno(), 100, PART + 10) == data[PART + 10:PART + 110], "nothing bad was cached"
