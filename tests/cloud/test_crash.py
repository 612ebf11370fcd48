"""A kill -9 in the middle of uploads never leaves a listed file with missing or
corrupt parts, and the interrupted upload can simply be run again."""

import hashlib
import os
import random
import threading

from cloudclient import CloudClient, fingerprint
from cloudservice import CloudProcess, add_user

ROUNDS = 10
FILES = 4
PART = 96 * 1024


def file_data(round_no, index):
    """Deterministic content per round, so a rerun uploads the very same parts."""
    seed = hashlib.sha256(f"{round_no}/{index}".encode()).digest()
    out = b""
    while len(out) < 5 * PART + 123:
        seed = hashlib.sha256(seed).digest()
        out += seed * 64
    return out[:5 * PART + 123 + index]


def upload_all(client, round_no, done_requests):
    """Uploads every file of a round (what the cloud lacks, then creates it, replacing
    the previous round's file); counts requests."""
    for i in range(FILES):
        data = file_data(round_no, i)
        parts = [data[o:o + PART] for o in range(0, len(data), PART)]
        lacking = set(client.missing([fingerprint(p) for p in parts]))
        done_requests.append(1)
        for p in parts:
            if fingerprint(p) in lacking:
                client.upload([p])
                done_requests.append(1)
        client.create(f"/crash/f{i}", parts)
        done_requests.append(1)


def check_consistent(proc, client):
    """Every listed file has all its parts on disk, each matching its fingerprint."""
    entries = client.list("/", recurse=True, include_parts=True, include_deleted=True)["entries"]
    for entry in entries:
        if entry["is_folder"]:
            continue
        assert len(entry["parts"]) == entry["part_count"]
        assert sum(p["size"] for p in entry["parts"]) == entry["size"]
        for part in entry["parts"]:
            fp = part["fingerprint"]
            on_disk = (proc.data_dir / "parts" / fp[:2] / fp).read_bytes()
            assert len(on_disk) == part["size"] and fingerprint(on_disk) == fp, entry["path"]
        got = client.download(entry["id"], [p["fingerprint"] for p in entry["parts"][:100]])
        assert all(status == "ok" for _, status, _ in got), entry["path"]
    return [e["path"] for e in entries if not e["is_folder"]]


def test_kill_during_uploads_leaves_no_broken_file(tmp_path):
    rng = random.Random(1234)
    proc = CloudProcess(tmp_path / "crash")
    add_user(proc.data_dir, "crasher", "pw")
    token = None
    try:
        for round_no in range(ROUNDS):
            proc.start()
            client = CloudClient(proc.url, token=token)
            if token is None:
                token = client.login("crasher", "pw")["token"]
            check_consistent(proc, client)

            # Upload from a second connection and kill the service once that upload has
            # made a varying number of requests, i.e. in the middle of its work.
            uploader = CloudClient(proc.url, token=token)
            done = []
            target = rng.randint(1, FILES * 8)
            stop_waiting = threading.Event()

            def run():
                try:
                    upload_all(uploader, round_no, done)
                except Exception:  # the kill cuts the connection
                    pass
                finally:
                    stop_waiting.set()

            thread = threading.Thread(target=run)
            thread.start()
            while len(done) < target and not stop_waiting.is_set():
                stop_waiting.wait(0.001)
            proc.kill()
            thread.join(timeout=60)
            assert not thread.is_alive()
            uploader.close()
            client.close()

        # After the last kill: the store is consistent and the same upload now succeeds.
        proc.start()
        client = CloudClient(proc.url, token=token)
        check_consistent(proc, client)
        upload_all(client, ROUNDS - 1, [])
        files = check_consistent(proc, client)
        assert files == [f"/crash/f{i}" for i in range(FILES)]
        for i in range(FILES):
            assert client.get_file(f"/crash/f{i}") == file_data(ROUNDS - 1, i)
        log = proc.log()
        assert log.count("POST /api/v1/parts/upload 200") >= ROUNDS * 2  # the kills hit uploads
        assert not os.listdir(proc.data_dir / "parts" / "tmp")
    finally:
        proc.kill()
