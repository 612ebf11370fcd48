"""Installing and removing the overlay for a user, as a user does it: `zarnucmd Overlay
install|remove|repair` (which hand over to ZarnuAgent -installOverlay / -removeOverlay)
with the real agent running, and ZarnuAgent itself from an installed tree."""
import glob
import pathlib
import shutil
import sqlite3
import subprocess

import pytest

from agent_support import bin_dir
from conftest import OVERLAY_FILES, eventually, synced, zarnu_overlay

EXTENSION = ["zarnu_overlay.py", "zarnu_overlay_extension.py"]
EMBLEMS = ["emblem-zarnu-synced.svg", "emblem-zarnu-syncing.svg", "emblem-zarnu-error.svg"]
NAUTILUS_BINDING = sorted(glob.glob("/usr/lib/*/nautilus/extensions-*/libnautilus-python.so") +
                          glob.glob("/usr/lib*/nautilus/extensions-*/libnautilus-python.so"))


def stored_overlay(data_dir):
    with sqlite3.connect(f"file:{data_dir / 'config.db'}?mode=ro", uri=True) as db:
        row = db.execute("SELECT value FROM options WHERE name = 'csmOverlay'").fetchone()
    return row and row[0]


def run(args, env, **more):
    return subprocess.run([str(a) for a in args], env={**env, **more}, capture_output=True, text=True, timeout=60)


def ours(share, extension_folder="nautilus-python/extensions"):
    return ([share / extension_folder / name for name in EXTENSION] +
            [share / "icons/hicolor/scalable/emblems" / name for name in EMBLEMS])


@pytest.mark.skipif(not NAUTILUS_BINDING, reason="needs the Debian package python3-nautilus")
def test_install_remove_and_repair_through_zarnucmd_with_the_agent_running(agent, overlay, tmp_path):
    (path,) = synced(agent, "a.txt")
    zarnucmd = bin_dir() / "zarnucmd"
    # The real binding of GNOME Files, and no other file manager's that this machine may have.
    libraries = tmp_path / "libraries"
    libraries.mkdir()
    (libraries / "nautilus").symlink_to(pathlib.Path(NAUTILUS_BINDING[0]).parent.parent)
    agent.env["ZARNU_EXTENSION_LIBDIRS"] = str(libraries)
    share = agent.home / ".local/share"
    # The user's own extension stays through everything, and so does its folder.
    mine = share / "nautilus-python/extensions/mine.py"
    mine.parent.mkdir(parents=True)
    mine.write_text("# the user's own\n")

    r = run([zarnucmd, "Overlay", "install"], agent.env)
    assert (r.returncode, r.stderr) == (0, ""), r.stderr
    assert r.stdout.splitlines() == [f"Installed {p}" for p in ours(share)] + [
        "The Zarnu overlay is installed for GNOME Files; a file manager that runs now shows it once it starts again",
        "The running agent answers path statuses for the overlay again"]
    for installed in ours(share):
        source = OVERLAY_FILES / ("emblems" if installed.suffix == ".svg" else "") / installed.name
        assert installed.read_bytes() == source.read_bytes()
    assert stored_overlay(agent.data) == "1"
    r = run([zarnucmd, "Overlay", "install"], agent.env)
    assert r.returncode == 0 and r.stdout.splitlines()[:5] == [f"Up to date: {p}" for p in ours(share)]

    # Removal takes exactly what the install put there, and the agent stops answering statuses.
    client = overlay(agent.process.socket_path)
    r = run([zarnucmd, "Overlay", "remove"], agent.env)
    assert (r.returncode, r.stderr) == (0, ""), r.stderr
    icons = share / "icons"
    assert r.stdout.splitlines() == [f"Removed {p}" for p in ours(share)] + [
        f"Removed folder {share / 'zarnu'}", f"Removed folder {icons}/hicolor/scalable/emblems",
        f"Removed folder {icons}/hicolor/scalable", f"Removed folder {icons}/hicolor", f"Removed folder {icons}",
        "The Zarnu overlay is removed; a file manager that runs now drops it once it starts again",
        "The running agent no longer answers path statuses for the overlay"]
    assert sorted(p.relative_to(agent.home) for p in agent.home.rglob("*") if p.is_file()) == [
        mine.relative_to(agent.home)]
    assert stored_overlay(agent.data) == "0"
    assert client.request("overlay_path_status_sync", {"file_path": path}) == {
        "cloud_status": 0, "sync_progress": 0, "flags": 0}
    eventually(lambda: client.root == str(agent.root), what="the root folder")
    assert client.status_of(path) is None  # asked; the agent keeps the question while the overlay is off

    # Installing again: the agent tells the clients that asked meanwhile.
    assert run([zarnucmd, "Overlay", "install"], agent.env).returncode == 0
    eventually(lambda: zarnu_overlay.emblem_for(client.status_of(path)) == "emblem-zarnu-synced",
               what="the status pushed once the overlay is back on")

    # Repair hands the removal to the agent, which ends the command: the overlay is then off.
    r = run([zarnucmd, "Overlay", "repair"], agent.env)
    assert r.returncode == 0 and "Successfully repaired" not in r.stdout
    assert r.stdout.splitlines()[0] == f"Removed {ours(share)[0]}" and stored_overlay(agent.data) == "0"
    r = run([zarnucmd, "Overlay", "remove"], agent.env)
    assert (r.returncode, r.stdout.splitlines()[0]) == (
        0, f"The Zarnu overlay is not installed for this user (no {share / 'zarnu/overlay-installed.txt'})")
    assert mine.read_text() == "# the user's own\n"


def test_without_a_binding_nothing_is_installed_and_the_packages_are_named(zarnucmd, tmp_path):
    (tmp_path / "no-libraries").mkdir()
    r = zarnucmd.run("Overlay", "install", env={"ZARNU_EXTENSION_LIBDIRS": str(tmp_path / "no-libraries")})
    assert (r.returncode, r.stdout) == (65, "")
    assert r.stderr == ("ZarnuAgent: Package not installed: no file manager has its Python binding installed: "
                        "install one of python3-nautilus (GNOME Files), python3-nemo (Nemo), python3-caja (Caja), "
                        "then run ZarnuAgent -installOverlay again (error 65)\n")
    assert not (tmp_path / ".local").exists()


def test_an_installed_tree_serves_nemo_and_caja_and_names_a_missing_file(tmp_path):
    # A tree laid out as a package installs it: bin/ZarnuAgent, share/zarnu/filemanager, lib/.
    tree = tmp_path / "usr"
    (tree / "bin").mkdir(parents=True)
    shutil.copy2(bin_dir() / "ZarnuAgent", tree / "bin")
    (tree / "lib").symlink_to(bin_dir().parent / "lib")
    shutil.copytree(OVERLAY_FILES, tree / "share/zarnu/filemanager")
    # Nemo's binding where the library has no multiarch folder, Caja's where it has one.
    libraries = tmp_path / "libraries"
    for binding in ("lib64/nemo/extensions-3.0/libnemo-python.so",
                    "lib/x86_64-linux-gnu/caja/extensions-2.0/libcaja-python.so"):
        (libraries / binding).parent.mkdir(parents=True)
        (libraries / binding).write_bytes(b"")
    env = {"HOME": str(tmp_path / "home"), "XDG_DATA_HOME": str(tmp_path / "data-home"),
           "ZARNU_DATA": str(tmp_path / "zarnu-data"),
           "ZARNU_EXTENSION_LIBDIRS": f"{libraries / 'lib'}:{libraries / 'lib64'}", "PATH": "/usr/bin:/bin"}
    share = tmp_path / "data-home"

    r = run([tree / "bin/ZarnuAgent", "-installOverlay"], env)
    assert (r.returncode, r.stderr) == (0, ""), r.stderr
    lines = r.stdout.splitlines()
    installed = ours(share, "nemo-python/extensions")[:2] + ours(share, "caja-python/extensions")
    assert lines[:-2] == [f"Installed {p}" for p in installed]
    assert lines[-2:] == [
        "The Zarnu overlay is installed for Nemo, Caja; a file manager that runs now shows it once it starts again",
        f"csmOverlay set to 1 in {tmp_path / 'zarnu-data/config.db'}; no agent is running"]
    assert not (share / "nautilus-python").exists()
    assert run([tree / "bin/ZarnuAgent", "-removeOverlay"], env).returncode == 0
    assert list(share.iterdir()) == []

    (tree / "share/zarnu/filemanager/emblems/emblem-zarnu-error.svg").unlink()
    r = run([tree / "bin/ZarnuAgent", "-installOverlay"], env)
    missing = tree / "share/zarnu/filemanager/emblems/emblem-zarnu-error.svg"
    assert (r.returncode, r.stdout) == (2, "")
    assert r.stderr == f"ZarnuAgent: No such file or directory: the overlay's file {missing} is missing (error 2)\n"
    assert list(share.iterdir()) == []
