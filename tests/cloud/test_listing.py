"""Listings: wild cards, filters, recursion, deleted entries and paging."""

import pytest

from cloudclient import CloudError


def paths(answer):
    return [e["path"] for e in answer["entries"]]


@pytest.fixture
def tree(new_account):
    client = new_account()
    for path in ["/docs/a.txt", "/docs/b.txt", "/docs/b.txt.bak", "/docs/sub/c.txt",
                 "/docs2/d.txt", "/music/e.mp3"]:
        client.put_file(path, path.encode() * 3)
    return client


def test_plain_paths(tree):
    answer = tree.list("/docs")
    assert paths(answer) == ["/docs", "/docs/a.txt", "/docs/b.txt", "/docs/b.txt.bak", "/docs/sub"]
    head = answer["entries"][0]
    assert head["is_folder"] and head["attributes"] == 16 and head["contained"] == 4
    assert answer["more"] is False and answer["cursor"] == ""

    file_answer = tree.list("/docs/a.txt", include_parts=True)
    (entry,) = file_answer["entries"]
    assert entry["size"] == len(b"/docs/a.txt" * 3) and entry["attributes"] == 0
    assert entry["parts"] == [{"fingerprint": entry["parts"][0]["fingerprint"], "size": entry["size"], "offset": 0}]

    assert paths(tree.list("/docs", recurse=True)) == [
        "/docs", "/docs/a.txt", "/docs/b.txt", "/docs/b.txt.bak", "/docs/sub", "/docs/sub/c.txt"]
    for missing in ["/nothing", "/nothing/below", "/docs/a.txt/x"]:
        assert tree.list(missing) == {"entries": [], "more": False, "cursor": ""}


def test_wild_cards_and_filters(tree):
    assert paths(tree.list("/doc*/?.txt")) == ["/docs/a.txt", "/docs/b.txt", "/docs2/d.txt"]
    assert paths(tree.list("/*/sub")) == ["/docs/sub"]
    assert paths(tree.list("/docs", filter=r"b\.txt.*")) == ["/docs/b.txt", "/docs/b.txt.bak"]
    assert paths(tree.list("/docs", filter=r"[ac]\.txt", recurse=True)) == ["/docs/a.txt", "/docs/sub/c.txt"]
    with pytest.raises(CloudError) as e:
        tree.list("/docs", filter="([")
    assert e.value.code == 55


def test_paging_repeats_the_head_on_every_page(tree):
    for i in range(12):
        tree.call("folders/create", {"path": f"/many/f{i:02d}"})
    pages = tree.list_pages("/many", page_size=5)
    assert [p["more"] for p in pages] == [True, True, False]
    children = []
    for page in pages:
        assert page["entries"][0]["path"] == "/many"
        children += paths(page)[1:]
    assert children == [f"/many/f{i:02d}" for i in range(12)]

    # Wild-card listings have no head: the page size counts every entry.
    wild = tree.list_pages("/many/f*", page_size=5)
    assert [len(p["entries"]) for p in wild] == [5, 5, 2]
    with pytest.raises(CloudError):
        tree.list("/many", cursor="garbage")


def test_deleted_entries_need_include_deleted(tree):
    tree.call("delete", {"path": "/docs/sub"})
    assert "/docs/sub" not in paths(tree.list("/docs", recurse=True))
    answer = tree.list("/docs", recurse=True, include_deleted=True)
    deleted = {e["path"]: e["deleted"] for e in answer["entries"] if e["deleted"]}
    assert set(deleted) == {"/docs/sub", "/docs/sub/c.txt"}
    assert len(set(deleted.values())) == 1
    assert answer["entries"][0]["contained"] == 3
