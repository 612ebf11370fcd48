"""The path verbs of the Cloud module: listing (wild cards, regular
expressions, deleted entries, recursion, parts), public links, mkdir, rm and
undelete, each run as a user would against the real service."""
import json
import urllib.request

import pytest

from cli_support import Account, entry_line
from cloudclient import fingerprint

BIG = bytes(range(256)) * 6144  # 1.5 MiB: a full part and a half part
FILES = {
    "/docs/a.txt": b"hello world\n",
    "/docs/b.md": b"# b",
    "/docs/big.bin": BIG,
    "/docs/sub/deep.txt": b"deep down",
    "/notes.txt": b"notes",
}


@pytest.fixture(scope="module")
def owner(service):
    """An account holding FILES; the tests that use it only read."""
    account = Account(service, "tree-owner", "tree pass")
    for path, data in FILES.items():
        account.api.put_file(path, data)
    return account


def fetch(url):
    with urllib.request.urlopen(url, timeout=30) as answer:
        return answer.read()


def test_listing_a_folder_shows_the_folder_then_its_children(cloud, owner):
    assert cloud.ok("ls", "/docs", account=owner) == [
        entry_line("docs"),
        entry_line("a.txt", 12),
        entry_line("b.md", 3),
        entry_line("big.bin", len(BIG)),
        entry_line("sub"),
    ]
    assert cloud.ok("dir", "/notes.txt", account=owner) == [entry_line("notes.txt", 5)]
    assert cloud.ok("list", "/nothing/here*", account=owner) == ["Empty"]


def test_wild_cards_regex_and_argument_order(cloud, owner):
    assert cloud.ok("ls", "/docs/*.txt", account=owner) == [entry_line("a.txt", 12)]
    assert cloud.ok("ls", "/d?cs/?.*", account=owner) == [entry_line("a.txt", 12), entry_line("b.md", 3)]
    # Without -regex a regular expression is just a name that matches nothing.
    assert cloud.ok("ls", "/docs/[ab][.].*", account=owner) == ["Empty"]
    assert cloud.ok("ls", "/docs/[ab][.].*", "-regex", account=owner) == [entry_line("a.txt", 12),
                                                                         entry_line("b.md", 3)]
    assert cloud.ok("ls", "/", "-regex", account=owner) == [entry_line(""), entry_line("docs"),
                                                          entry_line("notes.txt", 5)]
    # Two patterns: matches in argument order; an entry matched twice is listed twice.
    assert cloud.ok("ls", "/notes.txt", "/docs/a*", "/*.txt", account=owner) == [
        entry_line("notes.txt", 5), entry_line("a.txt", 12), entry_line("notes.txt", 5)]


def test_recursive_listing_and_excludes(cloud, owner):
    expected = [entry_line("docs"), entry_line("a.txt", 12), entry_line("b.md", 3), entry_line("big.bin", len(BIG)),
                entry_line("sub"), entry_line("deep.txt", 9)]
    assert cloud.ok("ls", "/docs", "-r", account=owner) == expected
    assert cloud.ok("ls", "/docs", "-r", "-e", account=owner) == expected  # this service keeps no excludes


def test_parts_follow_their_entry(cloud, owner):
    half = BIG[1048576:]
    assert cloud.ok("ls", "/docs/b*", "/docs/sub", "-p", account=owner) == [
        entry_line("b.md", 3),
        f"\t{'3 B':<12} {fingerprint(b'# b')}",
        "",
        entry_line("big.bin", len(BIG)),
        f"\t{'1.00 MB':<12} {fingerprint(BIG[:1048576])}",
        f"\t{'512.00 KB':<12} {fingerprint(half)}",
        "",
        entry_line("sub"),  # a folder has no parts and no empty line
        entry_line("deep.txt", 9),
        f"\t{'9 B':<12} {fingerprint(b'deep down')}",
        "",
    ]


def test_links_serve_what_they_name(cloud, owner):
    [line] = cloud.ok("link", "/docs/big.bin", account=owner)
    assert line.startswith("Link: " + cloud.url + "public/")
    assert fetch(line[len("Link: "):]) == BIG

    [token] = cloud.ok("link", "/docs/?.*", "-t", account=owner)
    assert len(token) == 32 and int(token, 16) >= 0
    listing = json.loads(fetch(cloud.url + "public/" + token))["entries"]
    assert [e["path"] for e in listing] == ["/docs/a.txt", "/docs/b.md"]

    [line] = cloud.ok("link", "/nothing.*", "/docs/sub/d.*p[.]txt", "-regex", account=owner)
    assert fetch(line[len("Link: "):]) == b"deep down"  # only the second pattern matched: one file

    assert cloud.ok("link", "/docs/none*", account=owner) == []  # no match: no link, no output


def test_mkdir_rm_and_undelete(cloud, new_account):
    user = new_account()
    user.api.put_file("/work/plan.txt", b"plan")
    assert cloud.ok("mkdir", "/work/new/deeper", account=user) == []
    assert cloud.ok("ls", "/work", "-r", account=user) == [
        entry_line("work"), entry_line("new"), entry_line("deeper"), entry_line("plan.txt", 4)]

    assert cloud.ok("rm", "/work/new", account=user) == []
    assert cloud.ok("rm", "/work/plan.txt", account=user) == []
    assert cloud.ok("ls", "/work", "-r", account=user) == [entry_line("work")]
    assert cloud.ok("ls", "/work", "-r", "-d", account=user) == [
        entry_line("work"), entry_line("new", deleted=True), entry_line("deeper", deleted=True),
        entry_line("plan.txt", 4, deleted=True)]

    assert cloud.ok("undelete", "/work/new", account=user) == ['Successfully restored "/work/new"']
    assert cloud.ok("ls", "/work/*", "-r", account=user) == [entry_line("new"), entry_line("deeper")]

    result = cloud.run("rm", "/work/plan.txt", account=user)  # already removed
    assert result.returncode == 174 and "/work/plan.txt" in result.stderr
    result = cloud.run("mkdir", "/work/new/deeper", account=user)  # an existing folder is fine
    assert result.returncode == 0, result.stderr
    user.api.put_file("/file", b"x")
    result = cloud.run("mkdir", "/file/sub", account=user)
    assert result.returncode == 172, result.stderr


def test_one_account_never_sees_another_accounts_paths(cloud, owner, new_account):
    stranger = new_account()
    assert cloud.ok("ls", "/", "-r", "-d", account=stranger) == [entry_line("")]
    assert cloud.ok("ls", "/docs", account=stranger) == ["Empty"]
    assert cloud.ok("link", "/docs/*", account=stranger) == []
    result = cloud.run("rm", "/docs/a.txt", account=stranger)
    assert result.returncode == 174
    assert cloud.ok("mkdir", "/docs", account=stranger) == []
    assert cloud.ok("ls", "/docs", "-r", account=owner)[1:3] == [entry_line("a.txt", 12), entry_line("b.md", 3)]


def test_a_listing_longer_than_a_page_lists_every_entry_once(cloud, new_account):
    user = new_account()
    names = [f"f{i:04}" for i in range(1003)]  # the cloud answers 1000 entries a page
    for name in names:
        user.api.create(f"/many/{name}", [])
    assert cloud.ok("ls", "/many", account=user) == [entry_line("many")] + [entry_line(n, 0) for n in names]
