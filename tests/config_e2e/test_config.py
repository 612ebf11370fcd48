"""The Config and Overlay modules of zarnucmd, run on fresh data folders.

Config reads and writes the agent's settings in "config.db"; the Overlay
verbs record "csmOverlay" there and then hand over to the ZarnuAgent
executable beside zarnucmd, whose exit status becomes the command's.
"""
import errno
import pathlib
import shutil
import sqlite3
import stat

import pytest

from conftest import bin_dir

# Every option the command line knows, with its default on a fresh database
# (None: an https address that each deployment sets).
DEFAULTS = {
    "csmAcceptAllIncomingTransfers": "0", "csmAutoSendCrashLogs": "1", "csmBandwithDownLimit": "0",
    "csmBandwithDownLimitSet": "0", "csmBandwithUpLimit": "0", "csmBandwithUpLimitSet": "0",
    "csmChangeScanners": "2", "csmCloudAddress": None, "csmCurlConnectTimeout": "300",
    "csmCurlDnsCacheTimeout": "300", "csmCurlTimeout": "300", "csmDeveloperMode": "0",
    "csmDirProcessors": "2", "csmLargeProcessors": "2", "csmLinkUrl": None, "csmMetadataSendMax": "150",
    "csmMoveToTrash2": "0", "csmOverlay": "1", "csmPartReceivers": "2", "csmPartSenders": "2",
    "csmPeerSync": "1", "csmProcessorTreeMax": "100000", "csmPromptToSyncRemovable": "0",
    "csmProxyAuth": "Basic", "csmProxyLoginReq": "UNSET", "csmProxyPasword": "UNSET", "csmProxyPort": "UNSET",
    "csmProxyServer": "UNSET", "csmProxyTunneling": "0", "csmProxyType": "None", "csmProxyUser": "UNSET",
    "csmRootCache": "N/A", "csmSmallProcessors": "2", "csmSslVerify": "1", "csmSyncSyncers": "2",
    "csmUpdateBuildSlot": "ga",
}

OVERLAY_VERBS = [
    # verb, switch the agent receives, csmOverlay afterwards (None: untouched)
    ("install", "-installOverlay", "1"),
    ("remove", "-removeOverlay", "0"),
    ("repair", "-removeOverlay", "0"),
    ("installOutlookAddin", "-installOutlookAddin", None),
    ("removeOutlookAddin", "-removeOutlookAddin", None),
]


def stored(zarnucmd):
    """The options table of the data folder's database, or None without one."""
    path = zarnucmd.data_dir / "config.db"
    if not path.exists():
        return None
    with sqlite3.connect(f"file:{path}?mode=ro", uri=True) as db:
        return dict(db.execute("SELECT name, value FROM options"))


def parse_listing(stdout):
    lines = stdout.split("\n")
    assert lines[0] == " Options and their values: "
    assert lines[1] == ""
    assert lines[-1] == ""
    rows = lines[2:-1]
    parsed = []
    for row in rows:
        assert row.startswith("   ") and len(row) >= 3 + 30 + 10, repr(row)
        parsed.append((row[3:33].rstrip(), row[33:].rstrip()))
    return parsed


def test_fresh_folder_reads_defaults_and_creates_nothing(zarnucmd):
    r = zarnucmd.run("Config", "get", "csmProxyPasword")
    assert (r.returncode, r.stdout, r.stderr) == (0, "UNSET\n", "")
    assert zarnucmd.run("Config", "get", "csmCurlTimeout").stdout == "300\n"

    r = zarnucmd.run("Config", "list")
    assert r.returncode == 0, r.stderr
    rows = parse_listing(r.stdout)
    assert [name for name, _ in rows] == sorted(DEFAULTS)
    for name, value in rows:
        expected = DEFAULTS[name]
        if expected is None:
            assert value.startswith("https://"), (name, value)
        else:
            assert value == expected, name
    # Words after "list" are ignored.
    assert zarnucmd.run("Config", "list", "csmOverlay", "more").stdout == r.stdout
    assert not zarnucmd.data_dir.exists()


def test_put_get_and_default_round_trip(zarnucmd):
    r = zarnucmd.run("Config", "put", "csmProxyType", "Http")
    assert (r.returncode, r.stdout) == (0, "Successfully applied option\n"), r.stderr
    assert zarnucmd.run("Config", "get", "csmProxyType").stdout == "Http\n"
    # Values are stored as given, whatever the option's type.
    assert zarnucmd.run("Config", "put", "csmCurlTimeout", "soon").returncode == 0
    assert zarnucmd.run("Config", "get", "csmCurlTimeout").stdout == "soon\n"
    listed = dict(parse_listing(zarnucmd.run("Config", "list").stdout))
    assert (listed["csmProxyType"], listed["csmCurlTimeout"]) == ("Http", "soon")

    r = zarnucmd.run("Config", "default", "csmCurlTimeout")
    assert (r.returncode, r.stdout) == (0, "Successfully applied option\n"), r.stderr
    assert stored(zarnucmd) == {"csmProxyType": "Http", "csmCurlTimeout": "300"}


@pytest.mark.parametrize("args", [("get", "csmProxyPassword"), ("put", "csmProxyPassword", "x"),
                                  ("default", "csmNoSuchThing")])
def test_unknown_option_fails_with_55_and_writes_nothing(zarnucmd, args):
    zarnucmd.run("Config", "put", "csmOverlay", "0")
    r = zarnucmd.run("Config", *args)
    assert r.returncode == 55
    assert r.stdout == ""
    assert f"No such config option {args[1]}" in r.stderr
    assert stored(zarnucmd) == {"csmOverlay": "0"}


@pytest.mark.parametrize("args, missing", [(("get",), "config name"), (("put", "csmOverlay"), "option value"),
                                           (("put",), "option value"), (("default",), "option name")])
def test_missing_argument_fails_with_47(zarnucmd, args, missing):
    r = zarnucmd.run("Config", *args)
    assert r.returncode == 47
    assert missing in r.stderr
    assert stored(zarnucmd) is None


def test_damaged_database_is_an_error_naming_the_file(zarnucmd):
    zarnucmd.data_dir.mkdir()
    (zarnucmd.data_dir / "config.db").write_bytes(b"\x00garbage" * 1000)
    for args in (("get", "csmOverlay"), ("put", "csmOverlay", "1"), ("list",)):
        r = zarnucmd.run("Config", *args)
        assert r.returncode != 0
        assert str(zarnucmd.data_dir / "config.db") in r.stderr, r.stderr
        assert r.stderr.count("\n") == 1, r.stderr


def copied_zarnucmd(folder):
    """zarnucmd copied into folder/bin, beside the build's libraries in folder/lib."""
    (folder / "bin").mkdir(parents=True)
    (folder / "lib").symlink_to(bin_dir().parent / "lib")
    return pathlib.Path(shutil.copy2(bin_dir() / "zarnucmd", folder / "bin" / "zarnucmd"))


@pytest.fixture
def alone(tmp_path):
    """zarnucmd copied into a folder of its own with no ZarnuAgent beside it."""
    return copied_zarnucmd(tmp_path / "alone")


@pytest.mark.parametrize("verb, switch, overlay", OVERLAY_VERBS)
def test_overlay_verbs_without_agent_fail_with_enoent(zarnucmd, alone, verb, switch, overlay):
    r = zarnucmd.run("Overlay", verb, exe=alone)
    assert r.returncode == errno.ENOENT
    assert r.stdout == ""
    assert str(alone.parent / "ZarnuAgent") in r.stderr
    # The database change comes first and stays; the add-in verbs touch nothing.
    assert stored(zarnucmd) == (None if overlay is None else {"csmOverlay": overlay})


@pytest.fixture
def with_agent(tmp_path, zarnucmd):
    """zarnucmd copied into a folder of its own, beside a ZarnuAgent script that
    records how it was started and exits with 7."""
    exe = copied_zarnucmd(tmp_path)
    agent = exe.parent / "ZarnuAgent"
    agent.write_text('#!/bin/sh\n{ printf "%s\\n" "$0" "$#" "$@"; } > "$AGENT_RECORD"\nexit 7\n')
    agent.chmod(agent.stat().st_mode | stat.S_IXUSR)
    return exe, agent, tmp_path / "agent-started"


@pytest.mark.parametrize("verb, switch, overlay", OVERLAY_VERBS)
def test_overlay_verbs_hand_over_to_the_agent(zarnucmd, with_agent, verb, switch, overlay):
    exe, agent, record = with_agent
    r = zarnucmd.run("Overlay", verb, exe=exe, env={"AGENT_RECORD": str(record)})
    assert r.returncode == 7, r.stderr
    # The agent replaced zarnucmd: no success line was written.
    assert (r.stdout, r.stderr) == ("", "")
    assert record.read_text().split("\n") == [str(agent), "1", switch, ""]
    assert stored(zarnucmd) == (None if overlay is None else {"csmOverlay": overlay})
