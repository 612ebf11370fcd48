"""GNOME Files (Nautilus) with the overlay installed by `zarnucmd Overlay install`, on a
virtual display (Xvfb) with a session bus of its own: a synced file of the agent's root
folder shows the synced badge, a file written while the window is open gets its badge too,
and the agent's "Copy public link" in the file's context menu reaches the agent. The
screenshots are kept in build/release/test-artifacts/: overlay-nautilus.png (the badges)
and overlay-nautilus-menu.png (the context menu).

Skipped, naming the Debian packages, where the display server, the file manager, its Python
binding, ImageMagick (the screenshots) or xdotool (the clicks) are missing."""
import glob
import os
import shutil
import subprocess

import pytest

from agent_support import bin_dir, run_program
from conftest import eventually, synced, write
from ready import NotReady, first_lines, stop_process

SYNCED_BADGE_FILL = "#13a86b"  # the fill of emblem-zarnu-synced.svg, in no other part of the window
TOOLS = {"Xvfb": "xvfb", "nautilus": "nautilus", "dbus-daemon": "dbus-daemon", "import": "imagemagick",
         "convert": "imagemagick", "xdotool": "xdotool"}
# From the top left corner of a file's badge to the middle of its icon, in the grid view.
BADGE_TO_ICON = (-55, 40)
BINDING = ["/usr/lib/*/nautilus/extensions-*/libnautilus-python.so", "/usr/lib*/nautilus/extensions-*/libnautilus-python.so"]


def missing_packages():
    missing = sorted({package for tool, package in TOOLS.items() if shutil.which(tool) is None})
    if not any(glob.glob(pattern) for pattern in BINDING):
        missing.append("python3-nautilus")
    return missing


pytestmark = pytest.mark.skipif(bool(missing_packages()),
                                reason=f"needs the Debian packages {', '.join(missing_packages())}")


def started(args, what):
    """Starts a server that writes its address on a pipe (the fd replaces {fd} in args) once it is
    ready; returns the process and that line."""
    read_end, write_end = os.pipe()
    proc = subprocess.Popen([a.replace("{fd}", str(write_end)) for a in args], pass_fds=(write_end,),
                            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    os.close(write_end)
    try:
        return proc, first_lines(proc, 1, 30, read_end)[0].strip()
    except NotReady as e:
        stop_process(proc)
        raise AssertionError(f"{what} {e}") from None
    finally:
        os.close(read_end)


@pytest.fixture
def desktop(tmp_path):
    """A virtual display and a session bus: the environment variables that reach them."""
    procs = []
    try:
        xvfb, display = started(["Xvfb", "-displayfd", "{fd}", "-screen", "0", "1024x700x24", "-nolisten", "tcp"],
                                "Xvfb")
        procs.append(xvfb)
        bus, address = started(["dbus-daemon", "--session", "--nofork", "--print-address={fd}"], "dbus-daemon")
        procs.append(bus)
        runtime = tmp_path / "runtime"
        runtime.mkdir(mode=0o700)
        yield {"DISPLAY": f":{display}", "DBUS_SESSION_BUS_ADDRESS": address, "XDG_RUNTIME_DIR": str(runtime),
               "GSETTINGS_BACKEND": "memory", "GSK_RENDERER": "cairo", "NO_AT_BRIDGE": "1", "GTK_A11Y": "none",
               "GIO_USE_VFS": "local"}
    finally:
        for proc in reversed(procs):
            stop_process(proc)


def badges(env, shot, measure="%[fx:round(mean*w*h)]"):
    """Takes a screenshot into `shot` and measures its pixels of the synced badge's colour: their
    count, or with "%@" the box around them ("WxH+X+Y")."""
    subprocess.run(["import", "-window", "root", str(shot)], env=env, check=True, timeout=60)
    out = subprocess.run(["convert", str(shot), "-fill", "black", "+opaque", SYNCED_BADGE_FILL, "-fill", "white",
                          "-opaque", SYNCED_BADGE_FILL, "-format", measure, "info:"],
                         capture_output=True, text=True, check=True, timeout=60)
    return int(out.stdout) if measure != "%@" else out.stdout


def xdotool(env, *args):
    return subprocess.run(["xdotool", *map(str, args)], env=env, capture_output=True, text=True, check=True,
                          timeout=60).stdout


def visible_windows(env):
    return set(xdotool(env, "search", "--onlyvisible", "--name", "").split())


def test_nautilus_shows_the_synced_badge(agent, desktop, tmp_path):
    synced(agent, "report.txt")
    env = dict(agent.env)
    for name in ("XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME", "WAYLAND_DISPLAY"):
        env.pop(name, None)
    env.update(desktop)
    r = run_program("zarnucmd", "Overlay", "install", env=env)
    assert r.returncode == 0, r.stderr
    assert f"Installed {agent.home}/.local/share/nautilus-python/extensions/zarnu_overlay_extension.py" in r.stdout

    artifacts = bin_dir().parent / "test-artifacts"
    artifacts.mkdir(exist_ok=True)
    shot, menu_shot = artifacts / "overlay-nautilus.png", artifacts / "overlay-nautilus-menu.png"
    with open(tmp_path / "nautilus.log", "wb") as log:
        nautilus = subprocess.Popen(["nautilus", "--new-window", str(agent.root)], env=env, stdin=subprocess.DEVNULL,
                                    stdout=log, stderr=log)
    try:
        one = eventually(lambda: badges(env, shot), timeout=120, what="the synced badge on screen")
        badge_x, badge_y = (int(n) for n in badges(env, shot, "%@").split("+")[1:])
        # A file written while the window is open gets its badge as the agent pushes its status.
        write(agent.root / "written-later.txt", b"bytes that sync while the window is open")
        eventually(lambda: badges(env, shot) >= 2 * one, timeout=120, what="a second badge")

        # The file's context menu ends with the agent's items and the file manager's "Properties":
        # three up from the bottom is "Copy public link".
        windows = visible_windows(env)
        xdotool(env, "mousemove", badge_x + BADGE_TO_ICON[0], badge_y + BADGE_TO_ICON[1], "click", "3")
        eventually(lambda: visible_windows(env) > windows, timeout=60, what="the context menu")
        xdotool(env, "key", "Up", "Up", "Up")
        subprocess.run(["import", "-window", "root", str(menu_shot)], env=env, check=True, timeout=60)
        xdotool(env, "key", "Return")
        eventually(lambda: f"Public link for {agent.root / 'report.txt'}: " in agent.log(), timeout=60,
                   what="the menu's command to reach the agent")
    finally:
        stop_process(nautilus)
