"""Measures the agent's sync against the real zarnu-cloud on loopback; see run.sh."""
import argparse
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import time

REPO = pathlib.Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(REPO / "tests"))
sys.path.insert(0, str(REPO / "tests" / "cloud"))

USER, PASSWORD = "bench", "bench password"


def run_agent_setup(bin_dir, base, name, url):
    from agent_support import AgentProcess, agent_env
    data, root, home = base / name / "data", base / name / "root", base / name / "home"
    home.mkdir(parents=True)
    env = agent_env(data, home)
    subprocess.run([str(bin_dir / "ZarnuAgent"), "-link", f"-username={USER}", f"-root={root}",
                    f"-cloudAddress={url}"], input=PASSWORD + "\n", text=True, env=env, check=True,
                   capture_output=True)
    return AgentProcess(data, home).start(), root, env


def tree_size(root):
    total, count = 0, 0
    for dirpath, _, files in os.walk(root):
        for f in files:
            if f.startswith(".zarnu-part-"):
                continue
            total += os.path.getsize(os.path.join(dirpath, f))
            count += 1
    return count, total


def wait_for(check, what, timeout=3600):
    start = time.monotonic()
    while not check():
        if time.monotonic() - start > timeout:
            raise SystemExit(f"timed out: {what}")
        time.sleep(0.05)
    return time.monotonic() - start


def cpu_seconds(pid):
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def rss_mib(pid):
    for line in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines():
        if line.startswith("VmRSS:"):
            return int(line.split()[1]) / 1024
    return 0.0


def cloud_files(client):
    count = 0
    for page in client.list_pages("/", recurse=True):
        count += sum(1 for e in page["entries"] if not e["is_folder"])
    return count


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--bin", required=True, type=pathlib.Path)
    ap.add_argument("--large-mib", type=int, default=1024)
    ap.add_argument("--small", type=int, default=1000)
    ap.add_argument("--status-files", type=int, default=10000)
    ap.add_argument("--work", type=pathlib.Path)
    args = ap.parse_args()
    os.environ["ZARNU_BIN_DIR"] = str(args.bin)
    from cloudservice import CloudProcess, add_user

    base = pathlib.Path(tempfile.mkdtemp(prefix="zarnu-sync-bench-", dir=args.work))
    started = []
    try:
        cloud = CloudProcess(base / "cloud").start()
        started.append(cloud)
        add_user(cloud.data_dir, USER, PASSWORD)
        client = cloud.client()
        client.login(USER, PASSWORD)
        a, root_a, env_a = run_agent_setup(args.bin, base, "a", cloud.url)
        started.append(a)
        b, root_b, _ = run_agent_setup(args.bin, base, "b", cloud.url)
        started.append(b)
        print(f"cloud {cloud.url}, agents a (pid {a.proc.pid}) and b (pid {b.proc.pid})")

        # 1. Many small files.
        staging = base / "staging-small"
        staging.mkdir()
        for i in range(args.small):
            (staging / f"f{i:05d}.txt").write_bytes(os.urandom(1000 + i % 3000))
        old = time.time() - 10
        for f in staging.iterdir():
            os.utime(f, (old, old))
        t0 = time.monotonic()
        shutil.move(str(staging), str(root_a / "small"))  # one rename: the agent sees them all at once
        up = wait_for(lambda: cloud_files(client) >= args.small, "small files into the cloud")
        down = wait_for(lambda: tree_size(root_b / "small")[0] >= args.small if (root_b / "small").exists() else False,
                        "small files into agent b") + up
        print(f"{args.small} small files: in the cloud after {up:.2f} s, in agent b's folder after {down:.2f} s "
              f"({args.small / up:.0f} files/s up)")

        # 2. One large file.
        large = base / "large.bin"
        with open(large, "wb") as fh:
            for _ in range(args.large_mib):
                fh.write(os.urandom(1024 * 1024))
        os.utime(large, (old, old))
        size = large.stat().st_size
        before = cloud_files(client)
        t0 = time.monotonic()
        shutil.move(str(large), str(root_a / "large.bin"))
        up = wait_for(lambda: cloud_files(client) > before, "the large file into the cloud")
        target = root_b / "large.bin"
        down = wait_for(lambda: target.exists() and target.stat().st_size == size, "the large file into agent b") + up
        mib = size / 1024 / 1024
        print(f"{mib:.0f} MiB file: in the cloud after {up:.2f} s ({mib / up:.0f} MiB/s), "
              f"in agent b's folder after {down:.2f} s ({mib / down:.0f} MiB/s end to end)")
        print(f"agent a peak memory so far: {rss_mib(a.proc.pid):.1f} MiB resident now")

        # 3. Idle cost.
        time.sleep(3)
        c0, t0 = cpu_seconds(a.proc.pid), time.monotonic()
        time.sleep(30)
        c1, t1 = cpu_seconds(a.proc.pid), time.monotonic()
        print(f"idle agent a: {100 * (c1 - c0) / (t1 - t0):.2f} % of one core over {t1 - t0:.0f} s, "
              f"{rss_mib(a.proc.pid):.1f} MiB resident")

        # 4. Overlay status over many files.
        status_dir = root_a / "status"
        status_dir.mkdir()
        for i in range(args.status_files):
            (status_dir / f"s{i:05d}").write_bytes(b"x")
        for i in range(args.status_files):
            os.utime(status_dir / f"s{i:05d}", (old, old))
        wait_for(lambda: cloud_files(client) >= before + 1 + args.status_files, "status files into the cloud")
        zarnucmd = [str(args.bin / "zarnucmd"), "Overlay", "status", "status/*"]
        runs = []
        for _ in range(3):
            t0 = time.monotonic()
            out = subprocess.run(zarnucmd, env=env_a, capture_output=True, text=True)
            runs.append(time.monotonic() - t0)
            if out.returncode != 0:
                raise SystemExit("Overlay status failed: " + out.stderr)
        rows = sum(1 for line in out.stdout.splitlines() if "Synced" in line)
        best = min(runs)
        print(f"Overlay status over {args.status_files} files: {rows} rows Synced, best of 3 {best:.3f} s "
              f"({rows / best:.0f} statuses/s)")
    finally:
        for proc in reversed(started):
            proc.stop()
        if not args.work:
            shutil.rmtree(base, ignore_errors=True)


if __name__ == "__main__":
    main()
