"""zarnucmd "put" and "get" against the real zarnu-cloud: files travel as fingerprinted
1 MiB parts, folders only with -r, nothing local is ever overwritten, an interrupted
upload resumes by sending only what the cloud lacks, and bad downloads fail loudly."""

import ctypes
import mmap
import os
import pathlib
import re
import signal
import subprocess

import pytest

from ready import stop_process
from small_disk import small_tmpfs
from transfer_support import MIB, fingerprints_of, pseudo_random


def progress_lines(stdout):
    return [line for line in re.split("[\r\n]", stdout) if line.startswith(" (")]


@pytest.mark.parametrize("size, batches", [(0, 0), (5 * MIB, 1), (5 * MIB + 1, 2)])
def test_file_round_trip_by_parts(cloud, tmp_path, size, batches):
    data = pseudo_random(size, f"round trip {size}")
    src = tmp_path / "data file.bin"
    src.write_bytes(data)

    put = cloud.cmd("put", src, "/inbox")
    assert put.returncode == 0, put.stderr
    assert f"{src} -> /inbox/data file.bin\n" in put.stdout
    # One progress line per batch of five parts, overwriting each other.
    lines = progress_lines(put.stdout)
    assert len(lines) == batches
    if batches:
        assert lines[-1].startswith(" (5.00 MB / 5.00 MB) [")
        assert lines[-1].endswith("]" + " " * 13)

    entry = cloud.entry("/inbox/data file.bin")
    assert entry["size"] == size
    assert [p["fingerprint"] for p in entry["parts"]] == fingerprints_of(data)
    assert [p["size"] for p in entry["parts"]] == [min(MIB, size - o) for o in range(0, size, MIB)]
    assert cloud.stats()["parts_received"] == len(entry["parts"])

    back = tmp_path / "back.bin"
    get = cloud.cmd("get", "/inbox/data file.bin", back)
    assert get.returncode == 0, get.stderr
    assert back.read_bytes() == data
    if size:
        assert f"Downloading '/inbox/data file.bin' to '{back}' - " in get.stdout


def make_tree(root: pathlib.Path):
    (root / "empty folder").mkdir(parents=True)
    (root / "Ünïcode ñame" / "deeper" / "also empty").mkdir(parents=True)
    (root / "Ünïcode ñame" / "deeper" / "größe.txt").write_bytes(pseudo_random(MIB + 17, "tree 1"))
    (root / "Ünïcode ñame" / "empty file").write_bytes(b"")
    (root / "top file.txt").write_text("top\n")
    (root / "zero").write_bytes(b"")
    (root / "zeros.bin").write_bytes(bytes(2 * MIB + 5))  # two equal parts
    (root / "many").mkdir()
    for i in range(130):  # more than one listing page
        (root / "many" / f"n{i:03}").write_text(str(i))


def snapshot(root: pathlib.Path):
    """Every folder and file below root, with file contents."""
    out = {}
    for dirpath, dirnames, filenames in os.walk(root):
        rel = pathlib.Path(dirpath).relative_to(root)
        out[str(rel) + "/"] = None
        for name in filenames:
            out[str(rel / name)] = (pathlib.Path(dirpath) / name).read_bytes()
    return out


def test_folder_tree_round_trip_with_r(cloud, tmp_path):
    tree = tmp_path / "local" / "my tree"
    make_tree(tree)
    put = cloud.cmd("put", tree, "/backup", "-r")
    assert put.returncode == 0, put.stderr
    assert cloud.entry("/backup/my tree/Ünïcode ñame/deeper/also empty")["is_folder"]

    restore = tmp_path / "restore"
    restore.mkdir()
    get = cloud.cmd("get", "/backup/my tree", restore, "-r")
    assert get.returncode == 0, get.stderr
    assert snapshot(restore / "my tree") == snapshot(tree)
    assert sorted(os.listdir(restore)) == ["my tree"]


def test_refusals_folders_need_r_and_nothing_is_overwritten(cloud, tmp_path):
    folder = tmp_path / "folder"
    folder.mkdir()
    (folder / "f").write_text("cloud copy")
    put = cloud.cmd("put", folder, "/dest")
    assert put.returncode == 55
    assert f"{folder} is a directory.  Must specify '-r' to recurse (error 55)" in put.stderr
    assert cloud.entry("/dest") is None  # refused before any cloud call
    assert cloud.cmd("put", tmp_path / "no such file", "/dest").returncode == 25

    assert cloud.cmd("put", folder, "/dest", "-r").returncode == 0
    get = cloud.cmd("get", "/dest/folder", tmp_path / "out")
    assert get.returncode == 1
    assert "/dest/folder is a directory.  Must specify '-r' to recurse (error 1)" in get.stderr
    missing = cloud.cmd("get", "/dest/nothing", tmp_path / "out")
    assert missing.returncode == 25
    assert "File does not exist in the cloud (error 25)" in missing.stderr
    assert not (tmp_path / "out").exists()

    existing = tmp_path / "existing.txt"
    existing.write_text("precious local bytes")
    get = cloud.cmd("get", "/dest/folder/f", existing)
    assert get.returncode == 33
    assert f"{existing} (error 33)" in get.stderr
    assert existing.read_text() == "precious local bytes"
    # Without -r the local path is the target file itself, never a folder to put it in.
    assert cloud.cmd("get", "/dest/folder/f", folder).returncode == 33
    assert os.listdir(folder) == ["f"] and (folder / "f").read_text() == "cloud copy"


def put_interrupted(cloud, src, folder, progress_lines, action):
    """Runs "put", stops zarnucmd (SIGSTOP) once `progress_lines` progress lines
    have arrived, so that `action` happens in the middle of the upload however
    busy the machine is, then resumes it and returns (exit code, stderr)."""
    proc = subprocess.Popen([cloud.zarnucmd.exe, "Cloud", "put", str(src), folder, *cloud.credentials()],
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=cloud.zarnucmd.env)
    try:
        seen = b""
        while seen.count(b"\r") < progress_lines:
            chunk = os.read(proc.stdout.fileno(), 4096)
            assert chunk, "zarnucmd ended early: " + seen.decode(errors="replace")
            seen += chunk
        os.kill(proc.pid, signal.SIGSTOP)
        action()
        os.kill(proc.pid, signal.SIGCONT)
        _, err = proc.communicate(timeout=60)
    finally:
        stop_process(proc, signal.SIGKILL)
    return proc.returncode, err


def test_interrupted_put_resumes_with_missing_parts_only(cloud, tmp_path):
    data = pseudo_random(96 * MIB, "interrupted")
    src = tmp_path / "large.bin"
    src.write_bytes(data)

    # After two progress lines ten parts are in the cloud.
    code, err = put_interrupted(cloud, src, "/big", 2, lambda: cloud.stop(sig=signal.SIGKILL))
    assert code != 0
    assert b"Could not reach " + cloud.url.rstrip("/").encode() in err, err

    cloud.restart()
    wanted = fingerprints_of(data)
    lacking = cloud.client().missing(wanted)
    assert 10 <= len(wanted) - len(lacking) and lacking

    again = cloud.cmd("put", src, "/big")
    assert again.returncode == 0, again.stderr
    stats = cloud.stats()
    assert stats["parts_received"] == len(lacking)
    assert [p["fingerprint"] for p in cloud.entry("/big/large.bin")["parts"]] == wanted

    # The same file once more: the cloud holds everything, no part travels.
    assert cloud.cmd("put", src, "/big").returncode == 0
    assert cloud.stats()["parts_received"] == stats["parts_received"]


def test_corrupt_part_in_cloud_is_an_error_not_a_file(cloud, tmp_path):
    data = pseudo_random(2 * MIB, "corrupt")
    src = tmp_path / "c.bin"
    src.write_bytes(data)
    assert cloud.cmd("put", src, "/").returncode == 0
    victim = cloud.proc.data_dir / "parts" / fingerprints_of(data)[1][:2] / fingerprints_of(data)[1]
    damaged = bytearray(victim.read_bytes())
    damaged[1000] ^= 0xFF
    victim.write_bytes(bytes(damaged))

    back = tmp_path / "back.bin"
    get = cloud.cmd("get", "/c.bin", back)
    assert get.returncode != 0
    assert fingerprints_of(data)[1] in get.stderr
    # The first part was good and stays; the damaged one never reached the file.
    assert back.read_bytes() == data[:MIB]


def test_file_changed_during_put_is_refused(cloud, tmp_path):
    src = tmp_path / "growing.log"
    src.write_bytes(pseudo_random(96 * MIB, "growing"))

    def append():
        with open(src, "ab") as f:
            f.write(b"appended while uploading\n")

    code, err = put_interrupted(cloud, src, "/logs", 1, append)
    assert code == 184, err
    assert b"File changed while processing it: " + str(src).encode() in err
    assert cloud.entry("/logs/growing.log") is None


def test_get_writes_odd_parts_and_stops_at_a_part_the_cloud_lost(cloud, tmp_path):
    # Parts of whole pages (written past the page cache) with a short last one, and parts
    # that are no multiple of a page, as another client may cut them (written through
    # it): every byte lands where it belongs, on disk and on tmpfs when it is there.
    data = pseudo_random(3 * MIB + 123, "odd parts")
    folders = [tmp_path]
    if pathlib.Path("/dev/shm").is_dir():
        folders.append(pathlib.Path(f"/dev/shm/zarnu-odd-{os.getpid()}"))
    for part_size in (256 * 1024, MIB - 1000):
        cloud.client().put_file(f"/odd-{part_size}.bin", data, part_size=part_size)
        for folder in folders:
            target = folder / f"odd-{part_size}.bin"
            try:
                folder.mkdir(exist_ok=True)
                get = cloud.cmd("get", f"/odd-{part_size}.bin", target)
                assert get.returncode == 0, get.stderr
                assert target.read_bytes() == data
            finally:
                target.unlink(missing_ok=True)
                if folder != tmp_path:
                    folder.rmdir()

    # A file of 1 MiB parts whose fourth part the cloud lost: the three before it are
    # written (several parts are fetched at once, but written in order), nothing after.
    data = pseudo_random(8 * MIB, "lost part")
    src = tmp_path / "lost.bin"
    src.write_bytes(data)
    assert cloud.cmd("put", src, "/").returncode == 0
    lost = fingerprints_of(data)[3]
    (cloud.proc.data_dir / "parts" / lost[:2] / lost).unlink()
    back = tmp_path / "lost.back"
    get = cloud.cmd("get", "/lost.bin", back)
    assert get.returncode == 162, get.stderr
    assert lost in get.stderr
    assert back.read_bytes() == data[:3 * MIB]


def test_get_onto_a_full_disk_keeps_only_whole_parts_from_the_start(cloud, tmp_path):
    # When the disk fills in the middle of a part, the file keeps what came before that
    # part's batch, and nothing of it or after it.
    data = pseudo_random(24 * MIB, "full disk")
    src = tmp_path / "big.bin"
    src.write_bytes(data)
    assert cloud.cmd("put", src, "/").returncode == 0
    with small_tmpfs(tmp_path / "small", "9500k") as small:
        target = small / "big.bin"
        get = cloud.cmd("get", "/big.bin", target)
        assert get.returncode != 0
        assert "No space left on device" in get.stderr, get.stderr
        kept = target.read_bytes()
        assert 0 < len(kept) <= 9500 * 1024 and len(kept) % MIB == 0, len(kept)
        assert kept == data[:len(kept)]



def resident_bytes(path):
    """Bytes of `path` that the page cache holds now: mincore over a mapping of the file
    that is never touched, so that asking brings nothing in."""
    libc = ctypes.CDLL(None, use_errno=True)
    libc.mmap.restype = ctypes.c_void_p
    libc.mmap.argtypes = [ctypes.c_void_p, ctypes.c_size_t, ctypes.c_int, ctypes.c_int, ctypes.c_int, ctypes.c_long]
    libc.mincore.argtypes = [ctypes.c_void_p, ctypes.c_size_t, ctypes.c_void_p]
    libc.munmap.argtypes = [ctypes.c_void_p, ctypes.c_size_t]
    size = path.stat().st_size
    pages = (ctypes.c_ubyte * ((size + mmap.PAGESIZE - 1) // mmap.PAGESIZE))()
    fd = os.open(path, os.O_RDONLY)
    try:
        address = libc.mmap(None, size, mmap.PROT_READ, mmap.MAP_SHARED, fd, 0)
        assert address != ctypes.c_void_p(-1).value, os.strerror(ctypes.get_errno())
        try:
            assert libc.mincore(address, size, pages) == 0, os.strerror(ctypes.get_errno())
        finally:
            libc.munmap(address, size)
    finally:
        os.close(fd)
    return sum(p & 1 for p in pages) * mmap.PAGESIZE


def test_put_leaves_the_page_cache_as_it_found_it(cloud, tmp_path):
    """A file read from the disk for an upload leaves no pages behind, so a large upload
    does not push what the user works on out of memory; a file that was in memory stays."""
    size = 23 * MIB + 5  # batches and folios whose edges do not meet
    cold, warm = tmp_path / "cold.bin", tmp_path / "warm.bin"
    for f in (cold, warm):
        f.write_bytes(pseudo_random(size, f.name))
    fd = os.open(cold, os.O_RDONLY)
    try:
        os.fsync(fd)
        os.posix_fadvise(fd, 0, 0, os.POSIX_FADV_DONTNEED)
    finally:
        os.close(fd)
    if resident_bytes(cold) > 0:
        pytest.skip(f"the file system of {tmp_path} keeps written files in memory")
    warm.read_bytes()
    assert resident_bytes(warm) == size + (-size % mmap.PAGESIZE)

    for f in (cold, warm):
        put = cloud.cmd("put", f, "/cache")
        assert put.returncode == 0, put.stderr
    assert resident_bytes(cold) == 0
    assert resident_bytes(warm) == size + (-size % mmap.PAGESIZE)
