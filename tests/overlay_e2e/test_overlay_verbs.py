"""The verbs that talk to the running agent, run as a user would: Debug msg,
feedback and resync, and Config put and default, against the real ZarnuAgent;
and what they do when there is no agent, a stale socket, or an agent that
goes away in the middle of a request."""
import os
import socket
import sqlite3
import threading
import time

import pytest

SEPARATOR = "_" * 55


def stored(data_dir):
    path = data_dir / "config.db"
    if not path.exists():
        return {}
    with sqlite3.connect(f"file:{path}?mode=ro", uri=True) as db:
        return dict(db.execute("SELECT name, value FROM options"))


def listing(zarnucmd, *patterns):
    r = zarnucmd.run("Debug", "msg", "-list", *patterns)
    assert r.returncode == 0, r.stderr
    lines = r.stdout.split("\n")
    assert lines[0] == " Message name " + " enabled".rjust(20)
    assert lines[1] == SEPARATOR and lines[-1] == ""
    rows = {}
    for row in lines[2:-1]:
        assert row.startswith("  ") and len(row) == 35, repr(row)
        rows[row[:15].strip()] = row[15:] == " " * 18 + " *"
    return rows


def test_msg_lists_enables_and_disables_by_pattern(zarnucmd, agent):
    rows = listing(zarnucmd)
    assert len(rows) == 22 and list(rows)[:3] == ["CSM", "CSMD", "CSM_TREE"] and "CSM_CMOUNT" in rows

    r = zarnucmd.run("Debug", "msg", "-enable", "CSM_PEER.*", "csm_ova")
    assert (r.returncode, r.stdout, r.stderr) == (0, "Enabled CSM_PEER.* csm_ova\n", "")
    assert listing(zarnucmd, "CSM_PEER.*", "CSM_OVA") == {"CSM_PEER": True, "CSM_PEERD": True,
                                                           "CSM_PEERPAK": True, "CSM_OVA": True}
    r = zarnucmd.run("Debug", "msg", "-disable", "CSM_PEERD")
    assert r.stdout == "Disabled CSM_PEERD\n"
    assert listing(zarnucmd, "CSM_PEER.*")["CSM_PEERD"] is False

    # A pattern that matches nothing still answers, and changes nothing.
    r = zarnucmd.run("Debug", "msg", "-enable", "NOTHING_LIKE_THIS")
    assert (r.returncode, r.stdout) == (0, "Enabled NOTHING_LIKE_THIS\n")
    assert listing(zarnucmd, "nothing") == {}


def test_msg_needs_an_action_and_patterns(zarnucmd, agent):
    r = zarnucmd.run("Debug", "msg", "CSM")
    assert (r.returncode, r.stdout) == (46, "")
    assert r.stderr == "zarnucmd: A required option is missing: You must specify a option to list (error 46)\n"
    r = zarnucmd.run("Debug", "msg", "-enable")
    assert r.returncode == 47 and "msg..." in r.stderr
    r = zarnucmd.run("Debug", "msg", "-list", "CSM_(")
    assert r.returncode == 55 and "CSM_(" in r.stderr


def test_feedback_leaves_a_report_and_the_agent_adds_its_diagnostics(zarnucmd, agent):
    before = int(time.time())
    r = zarnucmd.run("Debug", "feedback", "-message=Files stopped syncing at 10:00")
    after = int(time.time())
    assert (r.returncode, r.stdout, r.stderr) == (0, "", "")
    crashes = zarnucmd.data_dir / "crashes"
    reports = sorted(p.name for p in crashes.iterdir())
    assert len(reports) == 2, reports
    diagnostics, report = reports  # "-agent.txt" sorts first
    seconds = int(report[len("problem-report-diag-"):-len(".txt")])
    assert before <= seconds <= after
    assert (crashes / report).read_bytes() == b"Files stopped syncing at 10:00"
    assert diagnostics == report[:-4] + "-agent.txt"
    assert "ZarnuAgent version 1.34.0508" in (crashes / diagnostics).read_text()

    # Without a message the report is empty, and the agent is still told.
    assert zarnucmd.run("Debug", "feedback").returncode == 0
    assert agent.log().count("Watchdog triggered by a client") == 2


def test_resync_asks_for_a_full_reset_unless_told_shares(zarnucmd, agent):
    assert zarnucmd.run("Debug", "resync").returncode == 0
    assert zarnucmd.run("Debug", "resync", "-shares").returncode == 0
    log = agent.log()
    assert log.index("Full resync") < log.index("Resync of the share list")


def test_config_put_goes_through_the_agent_which_applies_it(zarnucmd, agent):
    r = zarnucmd.run("Config", "put", "csmCurlTimeout", "45")
    assert (r.returncode, r.stdout, r.stderr) == (0, "Successfully applied option\n", "")
    assert stored(zarnucmd.data_dir)["csmCurlTimeout"] == "45"
    assert "Applied option csmCurlTimeout = 45" in agent.log()
    assert zarnucmd.run("Config", "get", "csmCurlTimeout").stdout == "45\n"

    r = zarnucmd.run("Config", "default", "csmCurlTimeout")
    assert r.stdout == "Successfully applied option\n"
    assert stored(zarnucmd.data_dir)["csmCurlTimeout"] == "300"

    r = zarnucmd.run("Config", "put", "csmNoSuchOption", "1")
    assert (r.returncode, r.stdout) == (55, "") and "csmNoSuchOption" in r.stderr
    assert "csmNoSuchOption" not in stored(zarnucmd.data_dir)
    assert "csmNoSuchOption" not in agent.log()


def test_without_an_agent_config_falls_back_and_the_debug_verbs_fail_clearly(zarnucmd):
    r = zarnucmd.run("Config", "put", "csmOverlay", "0")
    assert (r.returncode, r.stdout) == (0, "Successfully applied option\n")
    assert stored(zarnucmd.data_dir)["csmOverlay"] == "0"

    for args in (("msg", "-list"), ("resync",), ("feedback", "-message=x")):
        started = time.monotonic()
        r = zarnucmd.run("Debug", *args)
        assert time.monotonic() - started < 6  # the client waits at most 5 s for an agent
        assert (r.returncode, r.stdout) == (55, "")
        assert r.stderr.startswith("zarnucmd: Invalid or unknown value: no agent answers at ")
        assert r.stderr.count("\n") == 1
    # feedback wrote its report before it looked for the agent.
    assert len(list((zarnucmd.data_dir / "crashes").iterdir())) == 1


def test_a_stale_socket_file_is_no_agent(zarnucmd):
    zarnucmd.data_dir.mkdir()
    stale = socket.socket(socket.AF_UNIX)
    stale.bind(str(zarnucmd.data_dir / "zarnuagent-overlay.socket"))
    stale.close()  # the file stays, nothing listens
    r = zarnucmd.run("Debug", "msg", "-list")
    assert r.returncode == 55 and "Connection refused" in r.stderr
    assert zarnucmd.run("Config", "put", "csmOverlay", "1").returncode == 0
    assert stored(zarnucmd.data_dir)["csmOverlay"] == "1"


@pytest.fixture
def vanishing_agent(zarnucmd):
    """A listener on the agent's socket that reads a request and then closes the
    connection without answering, as an agent that dies mid-request."""
    zarnucmd.data_dir.mkdir()
    server = socket.socket(socket.AF_UNIX)
    server.bind(str(zarnucmd.data_dir / "zarnuagent-overlay.socket"))
    server.listen()
    served = []

    def serve():
        while True:
            try:
                conn, _ = server.accept()
            except OSError:
                return
            served.append(conn.recv(65536))
            conn.close()

    thread = threading.Thread(target=serve, daemon=True)
    thread.start()
    yield served
    server.shutdown(socket.SHUT_RDWR)  # wakes the blocked accept (close alone does not)
    server.close()
    thread.join(timeout=5)
    assert not thread.is_alive()


def test_an_agent_that_goes_away_mid_request_fails_the_verb(zarnucmd, vanishing_agent):
    # The listing's header comes before the agent is asked; no row follows it.
    for args, printed in ((("msg", "-list"), " Message name " + " enabled".rjust(20) + "\n" + SEPARATOR + "\n"),
                          (("resync", "-shares"), "")):
        r = zarnucmd.run("Debug", *args, timeout=30)
        assert (r.returncode, r.stdout) == (88, printed), r.stderr
        assert r.stderr.startswith("zarnucmd: No session with the agent: ") and r.stderr.count("\n") == 1
    assert all(frame.startswith(b"ZOV1") for frame in vanishing_agent)
    # Config put falls back to the database instead.
    assert zarnucmd.run("Config", "put", "csmOverlay", "0").returncode == 0
    assert stored(zarnucmd.data_dir)["csmOverlay"] == "0"
