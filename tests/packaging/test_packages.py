"""The Debian packages: built with cpack, checked by lintian, installed on a fresh Debian 12.

The fresh system is a chroot made by debootstrap from the Debian mirror this machine's apt uses
(minbase plus man-db), cached as a tarball under the build folder so that a rerun only unpacks it;
the packages are installed there with apt-get, which pulls their dependencies from the mirror.
Where no chroot can be made (not root, no debootstrap, no mirror), the packages are installed on
this machine itself only when ZARNU_DISPOSABLE_MACHINE=1 says it may be changed; otherwise the
install tests are skipped with the reason.

Programs in the chroot run in a private mount namespace (`unshare --mount`) that mounts /proc for
them, so nothing stays mounted when they end; each process is stopped by its id.
"""
import contextlib
import glob
import os
import pathlib
import re
import shlex
import shutil
import subprocess

import pytest

from conftest import bin_dir
from ready import NotReady, first_lines, stop_process

BUILD = bin_dir().parent
CACHE = BUILD / "package-test"
ROOT_TARBALL = CACHE / "bookworm-minbase.tar"
APT_ARCHIVES = CACHE / "apt-archives"
SUITE = "bookworm"
DEBOOTSTRAP_TIMEOUT = 420
APT_TIMEOUT = 300
START_TIMEOUT = 30
VERSION_LINE = "Zarnu v1.34.0508"


def run(cmd, timeout=120, **kw):
    return subprocess.run(cmd, capture_output=True, text=True, timeout=timeout, **kw)


def debian_mirror():
    """The first http(s) URI that apt here uses for the suite's main archive (not the security one)."""
    texts = [p.read_text() for p in map(pathlib.Path, glob.glob("/etc/apt/sources.list.d/*.sources"))]
    for text in texts:
        for stanza in text.split("\n\n"):
            uris = re.search(r"^URIs:\s*(\S+)", stanza, re.M)
            suites = re.search(r"^Suites:\s*(.+)$", stanza, re.M)
            if uris and suites and SUITE in suites.group(1).split() and "security" not in uris.group(1):
                return uris.group(1)
    for path in ["/etc/apt/sources.list", *glob.glob("/etc/apt/sources.list.d/*.list")]:
        if os.path.exists(path):
            for line in open(path):
                m = re.match(r"\s*deb\s+(?:\[[^]]*\]\s+)?(https?://\S+)\s+" + SUITE + r"\s", line)
                if m and "security" not in m.group(1):
                    return m.group(1)
    return None


class InstalledSystem:
    """Where the packages got installed: a chroot (`root` set) or this machine (`root` None)."""

    def __init__(self, root):
        self.root = root

    def command(self, script):
        """argv that runs the shell `script` on the installed system; exec in the script keeps the process id."""
        if self.root is None:
            return ["sh", "-c", script]
        return ["unshare", "--mount", "sh", "-c", 'mount -t proc proc "$0/proc" && exec chroot "$0" /bin/sh -c "$1"',
                str(self.root), script]

    def sh(self, script, timeout=120):
        return run(self.command(script), timeout=timeout)

    def path(self, installed_path):
        return pathlib.Path(installed_path) if self.root is None else self.root / installed_path.lstrip("/")


@pytest.fixture(scope="module")
def packages(tmp_path_factory):
    """Builds zarnu_*.deb and zarnu-cloud_*.deb from the build tree with cpack."""
    out = tmp_path_factory.mktemp("packages")
    result = run(["cpack", "-G", "DEB", "--config", str(BUILD / "CPackConfig.cmake"), "-B", str(out / "staging"), "-D", f"CPACK_OUTPUT_FILE_PREFIX={out}"], timeout=600,
                 cwd=BUILD)
    assert result.returncode == 0, result.stdout + result.stderr
    debs = {p.name.split("_")[0]: p for p in out.glob("*.deb")}
    assert set(debs) == {"zarnu", "zarnu-cloud"}, debs
    return debs


def make_root_tarball():
    """debootstraps Debian 12 (minbase + man-db) once into the cache; returns None or why it cannot."""
    if ROOT_TARBALL.exists():
        return None
    if os.geteuid() != 0:
        return "making a chroot needs root"
    if shutil.which("debootstrap") is None:
        return "debootstrap is not installed"
    mirror = debian_mirror()
    if mirror is None:
        return f"no Debian {SUITE} mirror in /etc/apt"
    CACHE.mkdir(parents=True, exist_ok=True)
    work = CACHE / "debootstrap"
    shutil.rmtree(work, ignore_errors=True)
    try:
        result = run(["debootstrap", "--variant=minbase", "--include=man-db", SUITE, str(work), mirror],
                     timeout=DEBOOTSTRAP_TIMEOUT)
    except subprocess.TimeoutExpired:
        shutil.rmtree(work, ignore_errors=True)
        return f"debootstrap from {mirror} took longer than {DEBOOTSTRAP_TIMEOUT} s"
    if result.returncode != 0:
        shutil.rmtree(work, ignore_errors=True)
        return f"debootstrap from {mirror} failed: {result.stdout[-400:]}{result.stderr[-400:]}"
    partial = ROOT_TARBALL.with_suffix(".partial")
    result = run(["tar", "-C", str(work), "--numeric-owner", "-cf", str(partial), "."], timeout=300)
    assert result.returncode == 0, result.stderr
    partial.rename(ROOT_TARBALL)
    shutil.rmtree(work, ignore_errors=True)
    return None


def install_in_chroot(root, debs):
    result = run(["tar", "-C", str(root), "--numeric-owner", "-xf", str(ROOT_TARBALL)], timeout=300)
    assert result.returncode == 0, result.stderr
    shutil.copy("/etc/resolv.conf", root / "etc" / "resolv.conf")
    archives = root / "var" / "cache" / "apt" / "archives"
    for cached in APT_ARCHIVES.glob("*.deb"):
        shutil.copy(cached, archives)
    for deb in debs.values():
        shutil.copy(deb, root / "tmp")
    system = InstalledSystem(root)
    script = ("export DEBIAN_FRONTEND=noninteractive && apt-get update -qq && apt-get install -y -qq "
              "--no-install-recommends " + " ".join(f"/tmp/{d.name}" for d in debs.values()))
    result = system.sh(script, timeout=APT_TIMEOUT)
    assert result.returncode == 0, result.stdout[-2000:] + result.stderr[-2000:]
    APT_ARCHIVES.mkdir(parents=True, exist_ok=True)
    for downloaded in archives.glob("*.deb"):
        if not (APT_ARCHIVES / downloaded.name).exists():
            shutil.copy(downloaded, APT_ARCHIVES)
    return system


@pytest.fixture(scope="module")
def installed(packages, tmp_path_factory):
    why_not = make_root_tarball()
    if why_not is None:
        root = tmp_path_factory.mktemp("debian12-root")
        yield install_in_chroot(root, packages)
        shutil.rmtree(root, ignore_errors=True)
        return
    if os.environ.get("ZARNU_DISPOSABLE_MACHINE") != "1":
        pytest.skip(f"no fresh Debian 12 to install into ({why_not}), and ZARNU_DISPOSABLE_MACHINE=1 is not set")
    result = run(["apt-get", "install", "-y", "-qq", "--no-install-recommends", *map(str, packages.values())],
                 timeout=APT_TIMEOUT, env=dict(os.environ, DEBIAN_FRONTEND="noninteractive"))
    assert result.returncode == 0, result.stdout[-2000:] + result.stderr[-2000:]
    yield InstalledSystem(None)


def test_lintian_reports_no_errors(packages):
    if shutil.which("lintian") is None:
        pytest.skip("lintian is not installed (scripts/install-deps.sh installs it)")
    result = run(["lintian", "--tag-display-limit", "0", *map(str, packages.values())], timeout=300)
    (BUILD / "lintian.txt").write_text(result.stdout + result.stderr)
    errors = [line for line in result.stdout.splitlines() if line.startswith("E:")]
    assert errors == [], result.stdout
    assert result.returncode == 0, result.stdout + result.stderr


def test_installed_programs_and_manual_pages(installed):
    result = installed.sh("zarnucmd -version")
    assert result.returncode == 0 and result.stdout.strip() == VERSION_LINE, result.stdout + result.stderr
    # The libraries come from the private folder through the run path; the agent sits beside zarnucmd.
    assert installed.sh("test -x /usr/bin/ZarnuAgent").returncode == 0
    result = installed.sh("zarnucmd Cloud nosuchverb")
    assert result.stderr.startswith("zarnucmd: ") and result.returncode == 55, result.stderr
    for page in ("/usr/share/man/man1/zarnucmd.1.gz", "/usr/share/man/man1/ZarnuAgent.1.gz",
                 "/usr/share/man/man8/zarnu-cloud.8.gz"):
        result = installed.sh(f"MANWIDTH=100 man --warnings -l {page}")
        assert result.returncode == 0 and result.stderr == "", page + result.stderr
        name = pathlib.PurePath(page).name.split(".")[0]
        assert re.search(rf"^\s+{re.escape(name)} -", re.sub(r".\x08", "", result.stdout), re.M | re.I), page
    result = installed.sh("zarnu-cloud --help")
    assert result.returncode == 0 and "zarnu-cloud serve" in result.stdout
    # The service package made its system user and state folder.
    result = installed.sh("getent passwd zarnu-cloud && stat -c %U /var/lib/zarnu-cloud")
    assert result.returncode == 0 and result.stdout.split()[-1] == "zarnu-cloud", result.stdout + result.stderr


def exec_start(unit_text):
    lines = [line for line in unit_text.splitlines() if line.startswith("ExecStart=")]
    assert len(lines) == 1, unit_text
    return shlex.split(lines[0][len("ExecStart="):])


def test_agent_starts_from_its_unit(installed, tmp_path):
    unit = installed.path("/usr/lib/systemd/user/zarnu-agent.service").read_text()
    command = exec_start(unit)
    assert command[0] == "/usr/bin/ZarnuAgent"

    home = "/tmp/agent-home" if installed.root is not None else str(tmp_path)
    installed.sh(f"mkdir -p {home}")
    env = f"env -i PATH=/usr/bin:/bin HOME={home} ZARNU_PEER_DISCOVERY=off"
    with running(installed, f"exec {env} {shlex.join(command)}") as line:
        assert line == f"listening on {home}/.zarnu/zarnuagent-overlay.socket", line
        # zarnucmd finds and talks to the installed agent through its socket.
        result = installed.sh(f"{env} zarnucmd Debug msg -list")
        assert result.returncode == 0 and result.stdout.strip(), result.stdout + result.stderr


def test_service_starts_from_its_unit_as_its_own_user(installed):
    unit = installed.path("/usr/lib/systemd/system/zarnu-cloud.service").read_text()
    command = exec_start(unit)
    assert command[0] == "/usr/bin/zarnu-cloud"
    user = re.search(r"^User=(\S+)$", unit, re.M).group(1)
    home = re.search(r"^Environment=HOME=(\S+)$", unit, re.M).group(1)
    # The unit's own command line, as the unit's user, on a free loopback port (the last --listen wins).
    script = (f"exec setpriv --reuid={user} --regid={user} --init-groups env -i HOME={home} "
              f"{shlex.join(command)} --listen 127.0.0.1:0")
    with running(installed, script) as line:
        assert re.fullmatch(r"listening on https://127\.0\.0\.1:\d+/?", line), line
        # The self-signed certificate went into the state folder the package made for that user.
        result = installed.sh(f"stat -c %U {home}/cert.pem")
        assert result.stdout.strip() == user, result.stdout + result.stderr


@contextlib.contextmanager
def running(installed, script):
    """Starts `script` (which execs the program, keeping the process id) on the installed system and
    yields the first line it prints; then stops it by process id, and it must end with status 0."""
    proc = subprocess.Popen(installed.command(script), stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                            stdin=subprocess.DEVNULL)
    try:
        try:
            line = first_lines(proc, 1, START_TIMEOUT)[0]
        except NotReady as e:
            raise AssertionError(f"the program {e}: " + (proc.stderr.read().decode() if e.exited else "")) from None
        yield line
    finally:
        code = stop_process(proc)
    assert code == 0, proc.stderr.read().decode()
