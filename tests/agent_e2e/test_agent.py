"""ZarnuAgent as a user and a client program meet it: one agent per data
folder, the overlay socket and what it answers, and its survival of garbage."""
import os
import pathlib
import shutil
import signal
import sqlite3
import stat
import struct
import tempfile

import pytest

from agent_support import (AgentProcess, CloudProcess, OverlayConnection, add_user, agent_env, encode_frame,
                           link_agent, run_program)


def config(data_dir):
    if not (data_dir / "config.db").exists():
        return {}
    with sqlite3.connect(f"file:{data_dir / 'config.db'}?mode=ro", uri=True) as db:
        return dict(db.execute("SELECT name, value FROM options"))


def test_one_agent_per_data_folder_and_a_clean_stop(agent, tmp_path, data_dir):
    assert agent.lines == [f"listening on {agent.socket_path}"]
    assert stat.S_IMODE(os.stat(agent.socket_path).st_mode) == 0o600
    assert stat.S_IMODE(os.stat(data_dir).st_mode) == 0o700

    second = run_program("ZarnuAgent", env=agent_env(data_dir, tmp_path))
    assert second.returncode == 197
    assert second.stderr == "ZarnuAgent: The zarnu agent is already running and cannot be run twice (error 197)\n"
    assert agent.connect().result("overlay_get_root_share") == {"share_path": ""}

    assert agent.stop() == 0
    assert not agent.socket_path.exists()
    assert "Stopping on signal" in agent.log()
    # The lock went with the agent: a new one starts on the same folder, and
    # SIGINT stops it as cleanly.
    again = AgentProcess(data_dir, tmp_path).start()
    assert again.stop(signal.SIGINT) == 0
    assert not agent.socket_path.exists()


def test_unknown_methods_and_bad_parameters_get_error_replies(agent):
    conn = agent.connect()
    reply = conn.request("no_such_method")
    assert reply["error"]["code"] == 228 and "no_such_method" in reply["error"]["info"]
    for method in (None, 42):  # a request whose method is no name
        conn.send({"id": 900, "method": method})
        reply = conn.receive()
        assert (reply["id"], reply["error"]["code"]) == (900, 228), reply
    assert conn.request("overlay_configdb_put", option="csmOverlay")["error"]["code"] == 56
    refused = conn.request("overlay_debug_enable", messages=["CSM_PEER", "NOPE"])["error"]
    assert refused["code"] == 55 and "NOPE" in refused["info"]
    listed = {m["message"]: m["enabled"] for m in conn.result("overlay_debug_list")["messages"]}
    assert listed["CSM_PEER"] is False, "a refused change changes nothing"
    # The session goes on after each error.
    assert conn.result("overlay_path_status_sync", file_path="/x") == {"cloud_status": 0, "sync_progress": 0,
                                                                       "flags": 0}


GARBAGE = {
    "random bytes": os.urandom(4096),
    "a 4 GiB frame": b"ZOV1" + struct.pack(">II", 0xFFFFFFFF, 2),
    "JSON length past the body": b"ZOV1" + struct.pack(">II", 6, 99) + b"{}",
    "a JSON array": b"ZOV1" + struct.pack(">II", 7, 3) + b"[1]",
    "an attachment past the body": b"ZOV1" + struct.pack(">II", 11, 2) + b"{}" + struct.pack(">I", 9) + b"xyz",
    "not JSON": b"ZOV1" + struct.pack(">II", 8, 4) + b"{{{{",
}


def test_a_client_that_never_reads_its_replies_is_dropped(agent):
    greedy = agent.connect()
    # About 70 MB of replies that the client never reads: more than the agent
    # keeps for one peer.
    frame = encode_frame({"id": 1, "method": "overlay_debug_list"})
    try:
        greedy.sock.sendall(frame * 80000)
    except OSError:
        pass  # the agent may drop the session before the last request is sent
    assert agent.connect().result("overlay_get_root_share") == {"share_path": ""}
    greedy.sock.settimeout(30)
    received = 0
    try:
        while chunk := greedy.sock.recv(1 << 20):
            received += len(chunk)
    except ConnectionResetError:
        pass
    assert received < 64 * 1024 * 1024, "the session ended before all replies were sent"
    assert agent.connect().result("overlay_debug_list")["messages"]


@pytest.mark.parametrize("what", sorted(GARBAGE))
def test_garbage_closes_only_the_session_that_sent_it(agent, what):
    silent = agent.connect()  # connects and never speaks
    bad = agent.connect()
    bad.sock.sendall(GARBAGE[what])
    bad.sock.settimeout(10)
    assert bad.sock.recv(1) == b"", "the agent closes the offending session without answering"
    good = agent.connect()
    assert good.result("overlay_get_root_share") == {"share_path": ""}
    # A truncated frame from a client that leaves: nothing is answered, nothing breaks.
    cut = agent.connect()
    cut.sock.sendall(b"ZOV1" + struct.pack(">II", 100, 10) + b"{")
    cut.close()
    assert good.result("overlay_debug_list")["messages"]
    silent.close()


def test_message_types_switch_at_once_and_persist(tmp_path, agent, data_dir):
    conn = agent.connect()
    conn.result("overlay_debug_enable", messages=["CSM_PEER", "CSM_OVA"])
    conn.result("overlay_debug_disable", messages=["CSM"])
    listed = {m["message"]: m["enabled"] for m in conn.result("overlay_debug_list")["messages"]}
    assert len(listed) >= 22 and listed["CSM_CMOUNT"] is False
    assert (listed["CSM_PEER"], listed["CSM_OVA"], listed["CSM"]) == (True, True, False)
    assert agent.stop() == 0

    again = AgentProcess(data_dir, tmp_path).start()
    try:
        listed = {m["message"]: m["enabled"] for m in again.connect().result("overlay_debug_list")["messages"]}
        assert (listed["CSM_PEER"], listed["CSM_OVA"], listed["CSM"]) == (True, True, False)
    finally:
        again.stop()


def test_settings_are_stored_and_applied(agent, data_dir):
    conn = agent.connect()
    conn.result("overlay_configdb_put", option="csmPartSenders", value="many")
    # A number the agent applies is checked through zarnucmd Config put (overlay_e2e).
    assert config(data_dir)["csmPartSenders"] == "many"
    assert "Stored option csmPartSenders = many; not a number, the agent keeps 2" in agent.log()


def test_feedback_writes_diagnostics_beside_the_newest_report(agent, data_dir):
    crashes = data_dir / "crashes"
    crashes.mkdir()
    (crashes / "problem-report-diag-100.txt").write_text("old")
    newest = crashes / "problem-report-diag-200.txt"
    newest.write_text("the sync stopped")
    os.utime(crashes / "problem-report-diag-100.txt", (1, 1))
    agent.connect().result("watchdog_trigger")
    text = (crashes / "problem-report-diag-200-agent.txt").read_text()
    assert "ZarnuAgent version 1.34.0508" in text
    assert "linked user: (not linked)" in text and "problem report: problem-report-diag-200.txt" in text
    assert "Watchdog triggered by a client" in text, "the tail of the agent's log is included"


def test_cached_status_is_answered_by_a_push(agent):
    conn = agent.connect()
    assert conn.result("overlay_path_status_cached", file_path="/home/a/x.txt") == {}
    refresh = conn.wait_push("ova_refresh_path")
    assert refresh["params"]["paths"] == [{"path": "/home/a/x.txt", "status": 0, "progress": 0, "flags": 0}]


def test_a_client_of_another_user_is_refused(tmp_path):
    if os.geteuid() != 0:
        pytest.skip("needs root to connect as another user")
    # A folder every user can reach, and the socket opened to everyone, so that
    # only the agent's own peer check stands between another user and the agent.
    public = pathlib.Path(tempfile.mkdtemp(prefix="zarnu-uid-"))
    agent = AgentProcess(public / "data", tmp_path)
    try:
        os.chmod(public, 0o755)
        agent.start()
        os.chmod(public / "data", 0o755)
        os.chmod(agent.socket_path, 0o777)
        child = os.fork()
        if child == 0:
            code = 1
            try:
                os.setuid(65534)
                conn = OverlayConnection.unix(agent.socket_path)
                conn.request("overlay_get_root_share")
            except (ConnectionError, OSError):
                code = 0
            finally:
                os._exit(code)
        _, status = os.waitpid(child, 0)
        assert os.waitstatus_to_exitcode(status) == 0, "the agent answered a client of another user"
        assert "Refused a client of uid 65534" in agent.log()
        assert agent.connect().result("overlay_get_root_share") == {"share_path": ""}
    finally:
        agent.stop()
        shutil.rmtree(public, ignore_errors=True)


@pytest.fixture(scope="module")
def cloud(tmp_path_factory):
    proc = CloudProcess(tmp_path_factory.mktemp("cloud")).start()
    add_user(proc.data_dir, "agent-user", "pass word 1")
    yield proc
    proc.stop()


def link(data_dir, home, url, password, root):
    return link_agent(agent_env(data_dir, home), "agent-user", password, root, url)


def test_link_stores_the_login_and_a_running_agent_takes_it(tmp_path, agent, data_dir, cloud):
    assert agent.connect().result("overlay_get_root_share") == {"share_path": ""}
    wrong = link(data_dir, tmp_path, cloud.url, "bad", tmp_path / "Zarnu")
    assert wrong.returncode == 191 and wrong.stderr.startswith("ZarnuAgent: Incorrect username or password")
    assert "csmAuthToken" not in config(data_dir)

    r = link(data_dir, tmp_path, cloud.url, "pass word 1", tmp_path / "Zarnu")
    assert r.returncode == 0, r.stderr
    stored = config(data_dir)
    assert stored["csmAuthUser"] == "agent-user" and stored["csmRootFolder"] == str(tmp_path / "Zarnu")
    assert len(stored["csmAuthToken"]) >= 32 and stored["csmCloudAddress"] == cloud.url
    assert (tmp_path / "Zarnu").is_dir()

    # A new connection asks again and gets the new root without a restart.
    conn = agent.connect()
    assert conn.result("overlay_get_root_share") == {"share_path": str(tmp_path / "Zarnu")}
    (tmp_path / "Zarnu" / "docs").mkdir()
    (tmp_path / "Zarnu" / "docs" / "a.txt").write_text("a")
    (tmp_path / "Zarnu" / "b.txt").write_text("b")
    assert conn.result("resync_all") == {}
    assert f"Full resync asked for {tmp_path / 'Zarnu'}" in agent.log()


def test_remote_clients_must_prove_the_token(tmp_path, cloud):
    data_dir = tmp_path / "remote-data"
    assert link(data_dir, tmp_path, cloud.url, "pass word 1", tmp_path / "Zarnu").returncode == 0
    token = config(data_dir)["csmAuthToken"]
    agent = AgentProcess(data_dir, tmp_path, "-listen=127.0.0.1:0").start(expected_lines=2)
    try:
        address = agent.lines[1][len("listening on "):]
        stranger = OverlayConnection.tcp(address)
        assert stranger.request("overlay_get_root_share")["error"]["code"] == 177
        assert stranger.sock.recv(1) == b"", "the agent closes a session that does not prove the token"
        friend = OverlayConnection.tcp(address)
        friend.result("overlay_auth", auth_token=token)
        assert friend.result("overlay_get_root_share") == {"share_path": str(tmp_path / "Zarnu")}
    finally:
        assert agent.stop() == 0


def test_help_and_unknown_switches(tmp_path):
    env = agent_env(tmp_path / "d", tmp_path)
    r = run_program("ZarnuAgent", "-help", env=env)
    assert r.returncode == 0 and "-link" in r.stdout and "-listen=VALUE" in r.stdout
    r = run_program("ZarnuAgent", "-frobnicate", env=env)
    assert r.returncode == 55 and "-frobnicate" in r.stderr and r.stderr.count("\n") == 1
    # There is no mail client to take an add-in on Linux (EOPNOTSUPP).
    for switch, verb in (("-installOutlookAddin", "install"), ("-removeOutlookAddin", "remove")):
        r = run_program("ZarnuAgent", switch, env=env)
        assert (r.returncode, r.stdout) == (95, ""), (switch, r.stderr)
        assert r.stderr == ("ZarnuAgent: Operation not supported: there is no Outlook mail client on Linux, so there "
                            f"is no add-in to {verb} (error 95)\n")
