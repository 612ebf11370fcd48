"""The change feed (cursor, pages, long polls) and conditional writes."""

import threading
import time

import pytest

from cloudclient import CloudError


def feed(client, cursor="", **fields):
    return client.call("changes", {"cursor": cursor, **fields})


def read_all(client, cursor="", limit=1000):
    """Follows "more" to the end: ({path: entry}, final cursor, pages)."""
    seen, pages = {}, 0
    while True:
        page = feed(client, cursor, limit=limit)
        pages += 1
        for entry in page["changes"]:
            seen[entry["path"]] = entry
        cursor = page["cursor"]
        if not page["more"]:
            return seen, cursor, pages


def refused(call):
    with pytest.raises(CloudError) as e:
        call()
    return e.value


def test_the_feed_reports_every_path_once_in_its_current_state(new_account):
    alice = new_account()
    alice.put_file("/docs/a.txt", b"a" * 10)
    alice.put_file("/docs/old.txt", b"old")
    alice.call("delete", {"path": "/docs/old.txt"})
    first = feed(alice)
    assert first["reset"] and not first["more"]
    by_path = {e["path"]: e for e in first["changes"]}
    assert set(by_path) == {"/docs", "/docs/a.txt", "/docs/old.txt"}, "the root is never listed"
    assert [p["size"] for p in by_path["/docs/a.txt"]["parts"]] == [10]
    assert by_path["/docs/old.txt"]["deleted"] != 0 and by_path["/docs"]["is_folder"]

    # Replace, delete, undelete, and a folder replaced by a file: each path once, as it is now.
    cursor = first["cursor"]
    second = alice.put_file("/docs/a.txt", b"b" * 20)
    alice.put_file("/tree/x/y.txt", b"y")
    alice.call("delete", {"path": "/tree"})
    alice.call("undelete", {"path": "/docs/old.txt"})
    alice.create("/tree", [])  # the deleted folder /tree gives way to a file: /tree/x and below leave the tree
    page = feed(alice, cursor)
    assert not page["reset"]
    paths = [e["path"] for e in page["changes"]]
    assert len(paths) == len(set(paths)), paths
    now = {e["path"]: e for e in page["changes"]}
    assert now["/docs/a.txt"]["id"] == second["id"] and [p["size"] for p in now["/docs/a.txt"]["parts"]] == [20]
    assert now["/docs/old.txt"]["deleted"] == 0
    assert not now["/tree"]["is_folder"] and now["/tree"]["deleted"] == 0
    for gone in ("/tree/x", "/tree/x/y.txt"):
        assert now[gone]["id"] == 0 and now[gone]["deleted"] != 0, gone
    assert paths.index("/docs/a.txt") < paths.index("/tree"), "in the order of their last change"
    assert feed(alice, page["cursor"])["changes"] == []


def test_pages_follow_the_cursor_and_accounts_stay_apart(new_account):
    alice, bob = new_account(), new_account()
    for i in range(7):
        alice.create(f"/many/f{i}", [])
    bob.create("/bob-only", [])
    whole, cursor, pages = read_all(alice, limit=3)
    assert pages == 3 and set(whole) == {"/many"} | {f"/many/f{i}" for i in range(7)}
    alice.create("/many/late", [])
    later, _, _ = read_all(alice, cursor, limit=3)
    assert set(later) == {"/many/late"}
    assert set(read_all(bob)[0]) == {"/bob-only"}
    for bad in ("nonsense", "99999", "1.zz"):
        assert refused(lambda: feed(alice, bad)).code == 55
    assert refused(lambda: feed(alice, cursor, timeout=61)).code == 55
    assert refused(lambda: feed(alice, cursor, limit=0)).code == 55


def test_long_polls_wake_on_a_change_and_time_out_with_the_same_cursor(new_account):
    alice = new_account()
    other = new_account()
    cursor = feed(alice)["cursor"]
    quiet = feed(alice, cursor, timeout=1)
    assert quiet["changes"] == [] and quiet["cursor"] == cursor

    answers = {}
    waiting = threading.Thread(target=lambda: answers.setdefault("a", feed(alice, cursor, timeout=30)))
    waiting.start()
    # Other requests and other accounts go on while the poll is held.
    for i in range(3):
        other.create(f"/unrelated{i}", [])
    assert waiting.is_alive()
    writer = type(alice)(alice.url, token=alice.token)  # the same account on another connection
    writer.create("/wake", [])
    waiting.join(30)
    assert not waiting.is_alive()
    assert [e["path"] for e in answers["a"]["changes"]] == ["/wake"]
    writer.close()


def test_sigterm_ends_a_held_poll(cloud_factory):
    proc = cloud_factory()
    client = proc.account("poller", "pw")
    cursor = feed(client)["cursor"]
    outcome = {}

    def hold():
        try:
            outcome["answer"] = feed(client, cursor, timeout=60)
        except Exception as e:  # the service may close the connection as it stops
            outcome["error"] = e

    # The service counts a request as it starts handling it: once the count runs one
    # ahead of our own stats calls, the poll is held.
    watcher = proc.operator_client()
    before = watcher.stats()["requests"]
    t = threading.Thread(target=hold)
    t.start()
    calls = 0
    while t.is_alive():
        calls += 1
        if watcher.stats()["requests"] - calls > before:
            break
    watcher.close()
    assert t.is_alive(), outcome
    started = time.monotonic()
    assert proc.stop() == 0
    t.join(10)
    assert not t.is_alive() and time.monotonic() - started < 10


def test_conditional_create_and_delete(new_account):
    alice = new_account()
    v1 = alice.create("/c.txt", [])
    assert refused(lambda: alice.call("files/create", {"path": "/c.txt", "parts": [], "if_version": 0})).code == 202
    v2 = alice.call("files/create", {"path": "/c.txt", "parts": [], "if_version": v1["id"]})["entry"]
    stale = refused(lambda: alice.call("files/create", {"path": "/c.txt", "parts": [], "if_version": v1["id"]}))
    assert stale.code == 202 and stale.status == 409 and stale.body["current"]["id"] == v2["id"]
    assert refused(lambda: alice.call("delete", {"path": "/c.txt", "if_version": v1["id"]})).code == 202
    gone = alice.call("delete", {"path": "/c.txt", "if_version": v2["id"]})
    assert gone["entry"]["deleted"] != 0
    # Deleted counts as nothing there; a folder is never "no file".
    alice.call("files/create", {"path": "/c.txt", "parts": [], "if_version": 0})
    folder = alice.call("folders/create", {"path": "/d"})["entry"]
    conflict = refused(lambda: alice.call("files/create", {"path": "/d", "parts": [], "if_version": 0}))
    assert conflict.code == 202 and conflict.body["current"]["is_folder"]
    assert refused(lambda: alice.call("delete", {"path": "/d", "if_version": folder["id"] + 1000})).code == 202
    alice.call("delete", {"path": "/d", "if_version": folder["id"]})
    assert refused(lambda: alice.call("delete", {"path": "/d", "if_version": folder["id"]})).code == 174
