"""`zarnucmd Peer list` and `Peer send` against real agents on a namespaced network."""
import fcntl
import os
import pty
import select
import signal
import subprocess
import termios
import time

from conftest import ADDRESS, BANNER, env_for
from agent_support import CloudProcess, add_user, bin_dir, link_agent, run_program, stop_process

# An agent present answers the scan's questions, asked once a second: it shows up
# well before its next announcement, which comes every ten seconds.
ARRIVAL = 5.0
# A goodbye empties the list at once, long before answers missed for 3.5 s would.
GOODBYE = 2.0
# An agent killed without a goodbye is forgotten after about 3.5 s of silence.
SILENT_LEAVE = 8.0
PEER_PORT = 47821


def shows_agent(address, user="not linked"):
    return lambda peers: any(f"({user}) at {address}, agent " in p for p in peers)


def test_an_agent_is_seen_arriving_and_leaving(lan, scan, agent_in, tmp_path):
    watcher = scan("b")
    agent = agent_in("a")
    arrived, peers = watcher.wait_for(shows_agent(ADDRESS["a"]), ARRIVAL, "the agent")
    print(f"first 'Peer list updated' {arrived:.3f} s after Peer list started")
    assert len(peers) == 1, peers
    first = peers[0]

    # A clean stop says goodbye: the list empties at once.
    assert agent.stop() == 0
    watcher.wait_for(lambda p: p == [], GOODBYE, "the agent gone after SIGTERM")

    # The same data folder comes back as the same device; killed, it is forgotten
    # once it stops answering.
    agent = agent_in("a")
    _, peers = watcher.wait_for(shows_agent(ADDRESS["a"]), ARRIVAL, "the agent back")
    assert peers == [first], "a restarted agent keeps its device id"
    agent.stop(signal.SIGKILL)
    watcher.wait_for(lambda p: p == [], SILENT_LEAVE, "the killed agent forgotten")

    code, errors = watcher.stop()
    assert code == 0 and errors == ""
    assert watcher.lines[0] == BANNER


def test_nobody_there_prints_only_the_banner(lan, scan):
    # A listener beside the scan counts its questions: two of them mean the scan
    # has been asking for a second, and nobody answered.
    listener = subprocess.Popen([*lan.run_in("b"), "python3", "-c", f"""
import socket, sys
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
s.bind(("0.0.0.0", {PEER_PORT}))
print("ready", flush=True)
for _ in range(2):
    data, _ = s.recvfrom(2048)
    print(data[:6].hex(), flush=True)
"""], stdout=subprocess.PIPE, text=True)
    try:
        assert listener.stdout.readline().strip() == "ready"
        watcher = scan("b")
        questions = [listener.stdout.readline().strip() for _ in range(2)]
        assert questions == ["5a524e500101"] * 2, "magic ZRNP, version 1, kind 1 (who is there)"
        code, errors = watcher.stop()
    finally:
        listener.kill()
        listener.wait()
    assert code == 0 and errors == ""
    assert watcher.lines == [BANNER]


def test_what_limits_discovery_is_said_and_the_scan_still_works(lan, scan, agent_in):
    # Another program holds the discovery port: announcements cannot be heard, but
    # answers come back to the scan's own port, so the agent is still found.
    holder = subprocess.Popen([*lan.run_in("b"), "python3", "-c", f"""
import socket
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.bind(("0.0.0.0", {PEER_PORT}))
print("held", flush=True)
input()
"""], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    try:
        assert holder.stdout.readline().strip() == "held"
        agent_in("a")
        watcher = scan("b")
        assert watcher.error_line().startswith(f"zarnucmd: peer discovery: UDP port {PEER_PORT} is not free")
        watcher.wait_for(shows_agent(ADDRESS["a"]), ARRIVAL, "the agent, through answers")
        assert watcher.stop()[0] == 0
    finally:
        holder.kill()
        holder.wait()

    # A machine with no interface but loopback: said once, and a line still ends the scan.
    lonely = lan.ns["b"] + "x"
    subprocess.run(["ip", "netns", "add", lonely], check=True)
    try:
        watcher = scan(prefix=["ip", "netns", "exec", lonely])
        assert watcher.error_line() == ("zarnucmd: peer discovery: no network interface other than loopback is up: "
                                        "no peer can be found until one is")
        code, errors = watcher.stop()
        assert (code, errors, watcher.lines) == (0, "", [BANNER])
    finally:
        subprocess.run(["ip", "netns", "del", lonely])


def test_a_linked_agent_shows_its_user(lan, scan, agent_in, tmp_path):
    cloud = CloudProcess(tmp_path / "cloud", prefix=lan.run_in("a")).start()
    try:
        add_user(cloud.data_dir, "alice", "pw-alice")
        env = env_for(tmp_path, "linked")
        link = link_agent(env, "alice", "pw-alice", tmp_path / "linked" / "root", cloud.url, prefix=lan.run_in("a"))
        assert link.returncode == 0, link.stderr
        agent_in("a", "linked")
        watcher = scan("b")
        watcher.wait_for(shows_agent(ADDRESS["a"], "alice"), ARRIVAL, "the linked user")
        assert watcher.stop()[0] == 0
    finally:
        cloud.stop()


def test_hostile_packets_neither_crash_nor_flood_the_list(lan, scan, agent_in):
    agent = agent_in("a")
    watcher = scan("b")
    watcher.wait_for(shows_agent(ADDRESS["a"]), ARRIVAL, "the agent")
    # The flood comes from an address of its own, so the real agent's answers
    # are not charged to it.
    lan.add_address("a", "10.77.0.3")
    send_from(lan, "10.77.0.3", """
bad = [b"", b"ZRNP", packet(3, {}, version=2), packet(9, {}), packet(3, b"not json"),
       packet(3, b"x" * 2000), b"ZRNQ" + bytes(40), announce(0, host="\\x1b[2Jclear"),
       announce(0, device="../../etc"), packet(1, b"")[:-2]]
out = [(p, target) for target in ("10.77.0.2", "10.77.0.255") for p in bad] + [announce(i) for i in range(5000)]
""")

    # The scan still runs, still lists the real agent, and let only a bounded
    # share of the 5,000 made-up peers in.
    _, peers = watcher.wait_for(lambda p: shows_agent(ADDRESS["a"])(p) and len(p) > 1, ARRIVAL, "the flood's peers")
    fake = [p for p in peers if p.startswith("fake")]
    assert 0 < len(fake) <= 100, f"{len(fake)} made-up peers got in"
    assert not any("\x1b" in p for p in peers)
    # The made-up peers never answer again and are forgotten; the agent stays.
    watcher.wait_for(lambda p: p and all(" at 10.77.0.1," in x for x in p), SILENT_LEAVE, "only the agent left")
    assert agent.proc.poll() is None, "the agent survived the flood"
    assert watcher.stop()[0] == 0


def send_from(lan, address, packets):
    """Sends made-up discovery packets from `address` (an address of side a). `packets` is Python
    building a list named `out` of packets for side b's port, or of (packet, address) pairs, from
    packet(kind, body, sender, version) (body a dict or bytes) and announce(i, **fields)."""
    sent = subprocess.run([*lan.run_in("a"), "python3", "-c", f"""
import json, socket, struct
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
s.bind(("{address}", 0))
def packet(kind, body, sender=7, version=1):
    body = body if isinstance(body, bytes) else json.dumps(body).encode()
    return b"ZRNP" + struct.pack(">BBHQ", version, kind, len(body), sender) + body
def announce(i, **fields):
    doc = {{"device": "%032x" % (i + 1), "host": "fake%d" % i, "user": "", "version": "1"}}
    doc.update(fields)
    return packet(3, doc, sender=1000 + i)
out = []
{packets}
for p in out:
    p, target = p if isinstance(p, tuple) else (p, "10.77.0.2")
    s.sendto(p, (target, {PEER_PORT}))
"""], capture_output=True, text=True, timeout=60)
    assert sent.returncode == 0, sent.stderr


def test_an_answer_read_after_a_goodbye_does_not_bring_the_peer_back(lan, scan):
    # An engine's answer may be read after its goodbye (they leave by different
    # sockets); the goodbye still holds for that engine, and a new start of the
    # same device (another instance) is heard at once.
    watcher = scan("b")
    lan.add_address("a", "10.77.0.4")
    doc = 'doc = {"device": "ab" * 16, "host": "leaving", "user": "", "version": "1"}\n'
    send_from(lan, "10.77.0.4", doc + "out.append(packet(3, doc, 41))")
    watcher.wait_for(lambda p: any(x.startswith("leaving ") for x in p), ARRIVAL, "the made-up peer")
    send_from(lan, "10.77.0.4", doc + "out += [packet(4, doc, 41), packet(2, doc, 41)]")
    watcher.wait_for(lambda p: p == [], GOODBYE, "the peer gone after its goodbye")
    send_from(lan, "10.77.0.4", doc + 'doc["host"] = "back"\nout.append(packet(3, doc, 42))')
    seen = []
    watcher.wait_for(lambda p: seen.append(p) or any(x.startswith("back ") for x in p), ARRIVAL, "the new instance")
    assert not any(x.startswith("leaving ") for p in seen for x in p), seen
    assert watcher.stop()[0] == 0


def take_terminal():
    """In the child: a session of its own whose controlling terminal is standard input,
    so that Ctrl-C typed there sends SIGINT to it, as in a user's shell."""
    os.setsid()
    fcntl.ioctl(0, termios.TIOCSCTTY, 0)


def run_on_terminal(lan, tmp_path, keys):
    """Runs Peer list on a pseudo-terminal, types `keys` once the banner shows, and
    returns (exit status, terminal modes before, terminal modes after)."""
    controller, terminal = pty.openpty()
    before = termios.tcgetattr(terminal)
    proc = subprocess.Popen([*lan.run_in("b"), str(bin_dir() / "zarnucmd"), "Peer", "list"],
                            env=env_for(tmp_path, "tty"), stdin=terminal, stdout=terminal, stderr=terminal,
                            preexec_fn=take_terminal)
    try:
        seen = b""
        deadline = time.monotonic() + 30
        while BANNER.encode() not in seen:
            assert time.monotonic() < deadline, f"no banner on the terminal: {seen!r}"
            if select.select([controller], [], [], 1)[0]:
                seen += os.read(controller, 4096)
        # The key goes in only once the terminal is in key mode (no echo).
        deadline = time.monotonic() + 30
        while termios.tcgetattr(terminal)[3] & termios.ECHO:
            assert time.monotonic() < deadline, "the terminal never left line mode"
            select.select([], [], [], 0.01)
        os.write(controller, keys)
        code = proc.wait(timeout=10)
    finally:
        stop_process(proc, signal.SIGKILL)
    after = termios.tcgetattr(terminal)
    os.close(controller)
    os.close(terminal)
    return code, before, after


def test_on_a_terminal_one_key_ends_the_scan_and_the_mode_comes_back(lan, tmp_path):
    code, before, after = run_on_terminal(lan, tmp_path, b"q")  # no Enter
    assert code == 0
    assert after[3] == before[3], "local modes (echo, line editing) restored"
    # Ctrl-C ends it as Ctrl-C does, and the terminal is restored all the same.
    code, before, after = run_on_terminal(lan, tmp_path, b"\x03")
    assert code == -signal.SIGINT
    assert after[3] == before[3]


def test_send_checks_its_words_and_sends_nothing(lan, tmp_path):
    env = env_for(tmp_path, "send")
    done = run_program("zarnucmd", "Peer", "send", "report.txt", "alice-laptop", env=env, prefix=lan.run_in("b"))
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
    missing = run_program("zarnucmd", "Peer", "send", "report.txt", env=env, prefix=lan.run_in("b"))
    assert missing.returncode == 47
    assert missing.stderr == "zarnucmd: A required argument is missing: peer name (error 47)\n"
