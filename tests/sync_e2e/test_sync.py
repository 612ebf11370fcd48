"""The agent keeps its root folder and the account's cloud the same, both ways,
with the real zarnu-cloud and the real ZarnuAgent."""
import os

from agent_support import run_program
from conftest import PASSWORD, USER, cloud_tree, eventually, local_tree, write

SYNCED, SYNCING, ERROR = 1, 2, 3


def status(agent, path):
    conn = agent.connect()
    try:
        return conn.result("overlay_path_status_sync", file_path=str(path))
    finally:
        conn.close()


def same_everywhere(client, *agents):
    def check():
        cloud = cloud_tree(client)
        for agent in agents:
            files, _ = local_tree(agent.root)
            if files != cloud:
                return f"{agent.root}: {sorted(files)} vs cloud {sorted(cloud)}"
        return cloud
    return check


def test_files_travel_both_ways_and_report_synced(make_agent, client, cloud, tmp_path):
    agent = make_agent()
    big = os.urandom(3 * 1024 * 1024 + 17)
    write(agent.root / "notes.txt", b"hello\n")
    write(agent.root / "deep" / "er" / "big.bin", big)
    (agent.root / "empty-folder").mkdir()
    # A file written just now is left until it is stable, then uploaded.
    (agent.root / "fresh.txt").write_bytes(b"still being written")

    files = eventually(same_everywhere(client, agent))
    assert files == {"notes.txt": b"hello\n", "deep/er/big.bin": big, "fresh.txt": b"still being written"}
    listed = {e["path"] for page in client.list_pages("/", recurse=True) for e in page["entries"]}
    assert "/empty-folder" in listed

    # A file put with zarnucmd reaches the folder.
    src = tmp_path / "from-cli.txt"
    src.write_bytes(b"put by zarnucmd\n" * 1000)
    put = run_program("zarnucmd", "Cloud", "put", src, "/inbox", "-username=" + USER, "-password=" + PASSWORD,
                      "-cloudAddress=" + cloud.url, env=dict(agent.env, ZARNU_DATA=str(tmp_path / "cli-data")))
    assert put.returncode == 0, put.stderr
    eventually(lambda: (agent.root / "inbox" / "from-cli.txt").exists())
    assert (agent.root / "inbox" / "from-cli.txt").read_bytes() == src.read_bytes()
    assert not [p for p in agent.root.rglob(".zarnu-part-*")]

    for path in ("notes.txt", "deep/er/big.bin", "inbox/from-cli.txt", "deep", ""):
        state = eventually(lambda: (s := status(agent, agent.root / path))["cloud_status"] == SYNCED and s,
                           what=f"{path} to show synced")
        assert state["sync_progress"] == 5
    outside = status(agent, tmp_path / "elsewhere.txt")
    assert outside["cloud_status"] == 0


def test_deletes_travel_both_ways(make_agent, client):
    agent = make_agent()
    agent.put_option("csmMoveToTrash2", 1)
    write(agent.root / "keep.txt", b"keep")
    write(agent.root / "gone-here.txt", b"deleted locally")
    write(agent.root / "folder" / "gone-there.txt", b"deleted in the cloud")
    eventually(same_everywhere(client, agent))

    (agent.root / "gone-here.txt").unlink()
    eventually(lambda: "gone-here.txt" not in cloud_tree(client))
    deleted = client.list("/gone-here.txt", include_deleted=True)["entries"]
    assert deleted and deleted[0]["deleted"] != 0, "the cloud keeps a local delete for undelete"
    client.call("undelete", {"path": "/gone-here.txt"})
    eventually(lambda: (agent.root / "gone-here.txt").exists())
    assert (agent.root / "gone-here.txt").read_bytes() == b"deleted locally"

    client.call("delete", {"path": "/folder/gone-there.txt"})
    eventually(lambda: not (agent.root / "folder" / "gone-there.txt").exists())
    trash = agent.home / ".local" / "share" / "Trash"
    assert (trash / "files" / "gone-there.txt").read_bytes() == b"deleted in the cloud"
    info = (trash / "info" / "gone-there.txt.trashinfo").read_text()
    assert f"Path={agent.root}/folder/gone-there.txt" in info

    client.call("delete", {"path": "/folder"})
    eventually(lambda: not (agent.root / "folder").exists())
    files = eventually(same_everywhere(client, agent))
    assert set(files) == {"keep.txt", "gone-here.txt"}


def test_conflict_keeps_both_versions(make_agent, client):
    agent = make_agent()
    write(agent.root / "report.txt", b"first")
    eventually(same_everywhere(client, agent))
    agent.stop()

    write(agent.root / "report.txt", b"changed here")
    client.put_file("/report.txt", b"changed in the cloud")
    agent.start()

    files = eventually(lambda: len(cloud_tree(client)) == 2 and same_everywhere(client, agent)())
    assert files["report.txt"] == b"changed in the cloud"
    copies = [name for name in files if name.startswith("report (conflict copy ")]
    assert len(copies) == 1 and copies[0].endswith(").txt"), files
    assert files[copies[0]] == b"changed here"
    assert "Conflict on" in agent.log()

    # Equal changes on both sides are no conflict.
    agent.stop()
    write(agent.root / "same.txt", b"twin")
    client.put_file("/same.txt", b"twin")
    agent.start()
    files = eventually(lambda: "same.txt" in local_tree(agent.root)[0] and same_everywhere(client, agent)())
    assert not [name for name in files if name.startswith("same (conflict")]


def test_two_agents_on_one_account_converge(make_agent, client):
    a = make_agent("a")
    b = make_agent("b")
    for i in range(20):
        write(a.root / "from-a" / f"{i}.txt", f"a{i}".encode() * (i + 1))
        write(b.root / "from-b" / f"{i}.txt", f"b{i}".encode() * (i + 1))
    files = eventually(same_everywhere(client, a, b), timeout=120)
    assert len(files) == 40

    write(a.root / "from-b" / "3.txt", b"edited by a")
    (b.root / "from-a" / "4.txt").unlink()
    files = eventually(lambda: (f := same_everywhere(client, a, b)()) and not isinstance(f, str) and
                       f.get("from-b/3.txt") == b"edited by a" and "from-a/4.txt" not in f and f)
    assert len(files) == 39


def test_names_the_cloud_cannot_hold_stay_with_status_error(make_agent, client):
    agent = make_agent()
    bad = os.fsencode(agent.root) + b"/caf\xe9.txt"  # Latin-1, not UTF-8
    with open(bad, "wb") as fh:
        fh.write(b"kept")
    write(agent.root / "back\\slash.txt", b"kept too")
    write(agent.root / "fine.txt", b"synced")
    eventually(lambda: "fine.txt" in cloud_tree(client))
    # A name that is not UTF-8 cannot travel in the overlay's JSON; the log names it.
    eventually(lambda: "caf" in agent.log() and "is not valid UTF-8" in agent.log(), what="the log line on the Latin-1 name")
    state = eventually(lambda: (s := status(agent, agent.root / "back\\slash.txt"))["cloud_status"] == ERROR and s)
    assert state["cloud_status"] == ERROR
    assert set(cloud_tree(client)) == {"fine.txt"}
    assert open(bad, "rb").read() == b"kept"
    assert "the cloud cannot hold this name" in agent.log()


def test_cloud_going_away_and_coming_back(make_agent, client, cloud):
    agent = make_agent()
    write(agent.root / "before.txt", b"before")
    eventually(same_everywhere(client, agent))
    url = cloud.url
    cloud.stop()
    write(agent.root / "during.txt", b"written while the cloud was away")
    eventually(lambda: "The cloud's change feed failed" in agent.log() or "not reachable" in agent.log(),
               what="the agent to report the cloud away")
    # The same address again (the service keeps its data folder).
    host_port = url.split("//", 1)[1].rstrip("/")
    cloud.options = ("--listen", host_port, "--http")
    cloud.start()
    client.close()
    files = eventually(same_everywhere(client, agent), timeout=90)
    assert files["during.txt"] == b"written while the cloud was away"
    assert (agent.root / "during.txt").read_bytes() == b"written while the cloud was away"
