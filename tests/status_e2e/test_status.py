"""`zarnucmd Overlay status` against the real agent: rows for files, folders,
patterns and missing paths, laid out in exact columns, and watch mode."""
import os
import selectors
import signal
import subprocess
import time

from agent_support import bin_dir, stop_process
from conftest import cloud_tree, eventually, write


def table(folder, rows):
    """The block the verb prints for one folder: widths follow from the texts."""
    name = max(len(r[0]) for r in rows)
    status = max(len(r[1]) for r in rows)
    progress = max(len(r[2]) for r in rows)
    lines = [f"Results for path: {folder}", "_" * (name + status + progress + 16) + " "]
    lines += [r[0].ljust(name + 8) + r[1].ljust(status + 8) + r[2].ljust(progress) for r in rows]
    return "\n".join(lines) + "\n"


def settled(client, *names):
    eventually(lambda: all(n in cloud_tree(client) for n in names), what=f"{names} to reach the cloud")


def test_rows_for_files_folders_patterns_and_missing_paths(agent, client, zarnucmd):
    write(agent.root / "notes.txt", b"notes")
    write(agent.root / "docs" / "a.txt", b"a")
    write(agent.root / "docs" / "longer-name.md", b"md")
    write(agent.root / "back\\slash.txt", b"the cloud cannot hold this name")
    settled(client, "notes.txt", "docs/a.txt", "docs/longer-name.md")
    root = str(agent.root)

    # No argument: everything at the top of the root share, sorted by name.
    expected = table(root, [("back\\slash.txt", "Error", "None"), ("docs", "Synced", "100%"),
                            ("notes.txt", "Synced", "100%")])
    out = eventually(lambda: (r := zarnucmd("Overlay", "status")).stdout == expected or r.stdout,
                     what="the root's table")
    assert out is True

    # A relative pattern names a place in the root share, wherever the command runs.
    r = zarnucmd("Overlay", "status", "docs/*.txt", cwd="/")
    assert r.returncode == 0 and r.stdout == table(f"{root}/docs", [("a.txt", "Synced", "100%")])
    # An absolute folder inside the root is its own row, like the relative name.
    assert zarnucmd("Overlay", "status", f"{root}/docs").stdout == table(root, [("docs", "Synced", "100%")])
    assert zarnucmd("Overlay", "status", "docs").stdout == table(root, [("docs", "Synced", "100%")])

    # Missing paths get their own block; blocks come in folder order.
    r = zarnucmd("Overlay", "status", "nothing.txt", "docs/longer-name.md")
    rows_missing = [("nothing.txt", "Error", "No such path")]
    rows_docs = [("longer-name.md", "Synced", "100%")]
    # The column widths are the pass's widest texts over every block.
    widest = rows_missing + rows_docs
    name = max(len(x[0]) for x in widest)
    status = max(len(x[1]) for x in widest)
    progress = max(len(x[2]) for x in widest)
    expected = ""
    for folder, rows in ((f"{root}/docs", rows_docs), (f"{root}/nothing.txt", rows_missing)):
        expected += f"Results for path: {folder}\n" + "_" * (name + status + progress + 16) + " \n"
        expected += "".join(r[0].ljust(name + 8) + r[1].ljust(status + 8) + r[2].ljust(progress) + "\n" for r in rows)
    assert r.returncode == 0 and r.stdout == expected, r.stdout


def test_watch_prints_changes_only_and_ends_on_enter(agent, zarnucmd):
    write(agent.root / "first.txt", b"1")
    proc = subprocess.Popen([str(bin_dir() / "zarnucmd"), "Overlay", "status", "-w=50"], env=agent.env,
                            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    os.set_blocking(proc.stdout.fileno(), False)
    sel = selectors.DefaultSelector()
    sel.register(proc.stdout, selectors.EVENT_READ)
    seen = b""

    def read_until(text, timeout=30):
        nonlocal seen
        deadline = time.monotonic() + timeout
        while text not in seen and time.monotonic() < deadline:
            if sel.select(0.2):
                seen += proc.stdout.read() or b""
        assert text in seen, seen
    try:
        read_until(b"Watch mode enabled, press enter to stop\n")
        read_until(b"first.txt")
        read_until(b"Synced")
        blocks = seen.count(b"Results for path:")
        # Ten more passes see the same: nothing more is printed.
        time.sleep(0.5)
        if sel.select(0):
            seen += proc.stdout.read() or b""
        assert seen.count(b"Results for path:") == blocks, seen
        write(agent.root / "second.txt", b"2")
        read_until(b"second.txt")
        assert seen.count(b"Results for path:") > blocks
        proc.stdin.write(b"\n")
        proc.stdin.flush()
        assert proc.wait(30) == 0
    finally:
        stop_process(proc, signal.SIGKILL)


def test_enter_ends_a_long_watch_period_at_once(agent, zarnucmd):
    # Closed input counts as a line: with a one-hour period the verb still ends after its first pass.
    r = zarnucmd("Overlay", "status", "-w=3600000", stdin=subprocess.DEVNULL)
    assert r.returncode == 0 and r.stdout.startswith("Watch mode enabled, press enter to stop\nResults for path: ")


def test_no_agent_is_a_clear_error(agent, zarnucmd):
    agent.stop()
    r = zarnucmd("Overlay", "status")
    assert r.returncode == 55 and r.stdout == ""
    assert "no agent answers at" in r.stderr and str(agent.data) in r.stderr
