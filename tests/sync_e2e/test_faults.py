"""Faults the agent must survive without losing a byte: SIGKILL at random
moments while it syncs both ways, and a full local disk."""
import os
import random
import signal
import sqlite3
import time

import pytest

from conftest import cloud_tree, eventually, local_tree, write
from small_disk import small_tmpfs

ROUNDS = int(os.environ.get("ZARNU_CRASH_ROUNDS", "100"))


def cut_off_after_create(agent, path, unseen=False):
    """Leaves the stopped agent's sync.db as a crash between the cloud's create of `path`
    and its base does: only the sending journal knows the upload. `unseen`: the agent's
    view of the cloud has not got the file either."""
    db = sqlite3.connect(agent.data / "sync.db")
    with db:
        db.execute("INSERT INTO sending SELECT path, b.size, mtime_ns, inode, parts, 0 "
                   "FROM base b JOIN remote USING (path) WHERE path = ?", (path,))
        db.execute("DELETE FROM base WHERE path = ?", (path,))
        if unseen:
            db.execute("DELETE FROM remote WHERE path = ?", (path,))
    db.close()


def test_a_download_cut_off_after_its_rename_is_not_taken_for_a_new_file(make_agent, client):
    # The state a crash leaves between a download's rename and its base: the file is
    # in place and only the landing journal knows it came from the cloud.
    agent = make_agent()
    client.put_file("/came-down.txt", b"from the cloud")
    eventually(lambda: local_tree(agent.root)[0] == {"came-down.txt": b"from the cloud"})
    assert agent.stop() == 0
    db = sqlite3.connect(agent.data / "sync.db")
    with db:
        db.execute("INSERT INTO landing SELECT * FROM base WHERE path = 'came-down.txt'")
        db.execute("DELETE FROM base WHERE path = 'came-down.txt'")
    db.close()
    client.call("delete", {"path": "/came-down.txt"})

    agent.start()
    # The cloud delete reaches the folder; the file does not go back up.
    eventually(lambda: local_tree(agent.root)[0] == {} and cloud_tree(client) == {})


def test_an_upload_cut_off_after_the_clouds_create_is_not_brought_back(make_agent, client):
    # The state a crash leaves between the cloud's create and the base: the cloud has the
    # file and only the sending journal knows it went up from here. Deleted here while the
    # agent is down, it goes from the cloud too instead of coming back down.
    agent = make_agent()
    write(agent.root / "went-up.txt", b"from here")
    eventually(lambda: cloud_tree(client) == {"went-up.txt": b"from here"})
    assert agent.stop() == 0
    cut_off_after_create(agent, "went-up.txt")
    (agent.root / "went-up.txt").unlink()

    agent.start()
    eventually(lambda: cloud_tree(client) == {} and local_tree(agent.root)[0] == {})


def test_an_upload_whose_create_lands_after_the_restart_is_not_brought_back(make_agent, client):
    # The agent died while the cloud was still creating its upload, so the next start's
    # first answers do not show the file. Deleted here meanwhile, the file goes from the
    # cloud once the create lands instead of coming back down.
    agent = make_agent()
    data = b"from here, created late"
    write(agent.root / "late.txt", data)
    eventually(lambda: cloud_tree(client) == {"late.txt": data})
    modified = (agent.root / "late.txt").stat().st_mtime_ns // 10**9
    assert agent.stop() == 0
    cut_off_after_create(agent, "late.txt", unseen=True)
    client.call("delete", {"path": "/late.txt"})  # not created yet, as far as anyone can see
    (agent.root / "late.txt").unlink()

    agent.start()
    # A file put after the start comes down: the agent has caught up with the cloud.
    client.put_file("/marker.txt", b"marker")
    eventually(lambda: local_tree(agent.root)[0] == {"marker.txt": b"marker"})
    client.create("/late.txt", [data], modified=modified)
    eventually(lambda: cloud_tree(client) == {"marker.txt": b"marker"} and
               local_tree(agent.root)[0] == {"marker.txt": b"marker"})


def test_sigkill_while_syncing_both_ways_loses_nothing(make_agent, client):
    agent = make_agent(start=False)
    rng = random.Random(os.environ.get("ZARNU_CRASH_SEED", "7"))
    expected = {}  # relative path -> bytes that must be there at the end, on both sides
    local_names, cloud_names = [], []
    for round_no in range(ROUNDS):
        agent.start()
        # Changes on both sides while the agent runs; it dies at a random moment.
        for j in range(rng.randint(1, 3)):
            name = f"local/{round_no}-{j}.bin"
            data = os.urandom(rng.choice([0, 10, 5000, 1024 * 1024 + 3, 2 * 1024 * 1024]))
            write(agent.root / name, data)
            expected[name] = data
            local_names.append(name)
        if rng.random() < 0.5:
            name = f"cloud/{round_no}.bin"
            data = os.urandom(rng.choice([1, 7000, 1024 * 1024 + 9]))
            client.put_file("/" + name, data)
            expected[name] = data
            cloud_names.append(name)
        if local_names and rng.random() < 0.3:
            name = local_names.pop(rng.randrange(len(local_names)))
            if (agent.root / name).exists():
                (agent.root / name).unlink()
                del expected[name]
            else:
                local_names.append(name)
        if local_names and rng.random() < 0.3:
            name = rng.choice(local_names)
            data = os.urandom(rng.choice([3, 4096, 1024 * 1024 + 1]))
            write(agent.root / name, data)
            expected[name] = data
        if cloud_names and rng.random() < 0.2:
            name = cloud_names.pop(rng.randrange(len(cloud_names)))
            client.call("delete", {"path": "/" + name})
            del expected[name]
        time.sleep(rng.uniform(0.0, 0.4))
        assert agent.stop(signal.SIGKILL) == -signal.SIGKILL

    agent.start()

    def converged():
        files, _ = local_tree(agent.root)
        if files != expected:
            missing = sorted(set(expected) - set(files))
            extra = sorted(set(files) - set(expected))
            wrong = sorted(n for n in expected if n in files and files[n] != expected[n])
            return f"local: missing {missing[:5]} extra {extra[:5]} wrong {wrong[:5]}"
        cloud = cloud_tree(client)  # every part of every cloud file is fetched and checked
        if cloud != expected:
            return f"cloud: missing {sorted(set(expected) - set(cloud))[:5]} extra {sorted(set(cloud) - set(expected))[:5]}"
        return True

    eventually(converged, timeout=180)
    assert not list(agent.root.rglob(".zarnu-part-*")), "a temporary download was left behind"


@pytest.fixture
def small_root(tmp_path):
    """A 3 MiB tmpfs mounted where the agent's root folder will be."""
    with small_tmpfs(tmp_path / "small", "3m") as mount_point:
        yield mount_point


def test_full_disk_reports_error_and_keeps_going(make_agent, client, small_root, tmp_path):
    agent = make_agent(start=False)
    # Point the link at the small disk.
    root = small_root / "root"
    agent.link(root, client.url)
    too_big = os.urandom(5 * 1024 * 1024)
    client.put_file("/too-big.bin", too_big)
    client.put_file("/small.txt", b"fits")
    agent.start()

    eventually(lambda: (root / "small.txt").exists() and (root / "small.txt").read_bytes() == b"fits")
    eventually(lambda: "too-big.bin" in agent.log() and "No space left on device" in agent.log(),
               what="the full disk to be logged")
    conn = agent.connect()
    try:
        state = conn.result("overlay_path_status_sync", file_path=str(root / "too-big.bin"))
    finally:
        conn.close()
    assert state["cloud_status"] == 3
    assert not (root / "too-big.bin").exists()
    assert not list(root.rglob(".zarnu-part-*"))
    # The cloud copy is untouched, and a local file still goes up.
    write(root / "up.txt", b"still syncing")
    eventually(lambda: cloud_tree(client).get("up.txt") == b"still syncing")
    assert cloud_tree(client)["too-big.bin"] == too_big
